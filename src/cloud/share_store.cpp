#include "cloud/share_store.h"

#include "cloud/crypto.h"
#include "cloud/error_codes.h"
#include "cloud/share_url.h"

namespace corvane::cloud {
namespace {

std::int64_t number(auto value) {
    return static_cast<std::int64_t>(value);
}

SqlParam param(const std::optional<std::string>& text) {
    if (!text) return std::monostate{};
    return std::string_view(*text);
}

std::optional<std::string> optionalText(const SqlRow& row, int column) {
    if (row.isNull(column)) return std::nullopt;
    return std::string(row.text(column));
}

struct StoredParticipant {
    std::optional<std::int64_t> accountId;
    std::optional<std::string> emailKey;
    AcceptanceStatus status;
};

bool samePerson(const StoredParticipant& stored, const ParticipantEntry& entry) {
    if (stored.accountId && entry.accountId) return *stored.accountId == *entry.accountId;
    return stored.emailKey && entry.emailKey && *stored.emailKey == *entry.emailKey;
}

}  // namespace

ParticipantType participantTypeFrom(std::int64_t value) {
    switch (value) {
        case 1:
            return ParticipantType::owner;
        case 3:
            return ParticipantType::privateUser;
        case 4:
            return ParticipantType::publicUser;
        default:
            return ParticipantType::unknown;
    }
}

AcceptanceStatus acceptanceStatusFrom(std::int64_t value) {
    if (value < 1 || value > 3) return AcceptanceStatus::unknown;
    return static_cast<AcceptanceStatus>(value);
}

Permission permissionFrom(std::int64_t value) {
    if (value < 1 || value > 3) return Permission::unknown;
    return static_cast<Permission>(value);
}

std::variant<std::vector<ParticipantEntry>, CloudError> resolveParticipants(Connection& connection,
                                                                            const Account& owner,
                                                                            const Share& share) {
    std::vector<ParticipantEntry> entries;
    for (const auto& participant : share.participants) {
        if (participant.type == ParticipantType::owner) continue;
        const auto& identity = participant.userIdentity;
        std::optional<Account> account;
        if (identity.userRecordName) {
            account = findAccountByRecordName(connection, *identity.userRecordName);
            if (!account)
                return CloudError(kInvalidArguments,
                                  "Unknown share participant " + *identity.userRecordName);
        } else if (identity.emailAddress && !identity.emailAddress->empty()) {
            account = findAccountByEmail(connection, *identity.emailAddress);
        } else {
            return CloudError(kInvalidArguments,
                              "A share participant needs a user record name or an e-mail address");
        }
        if (account && account->id == owner.id) continue;

        ParticipantEntry entry;
        if (account) {
            entry.accountId = account->id;
            entry.email = account->email;
        } else {
            entry.email = identity.emailAddress;
        }
        if (entry.email) entry.emailKey = emailKey(*entry.email);
        entry.permission = participant.permission == Permission::unknown ? Permission::readOnly
                                                                         : participant.permission;
        entry.requestedStatus = participant.acceptanceStatus;

        bool listed = false;
        for (const auto& other : entries) {
            StoredParticipant asStored{other.accountId, other.emailKey, other.requestedStatus};
            listed = listed || samePerson(asStored, entry);
        }
        if (!listed) entries.push_back(std::move(entry));
    }
    return entries;
}

Share writeShare(Connection& connection, std::int64_t zoneRowId, std::int64_t recordRowId,
                 const Account& owner, const Share& share,
                 const std::vector<ParticipantEntry>& participants) {
    ByteView thumbnail;
    if (share.thumbnailImageData) thumbnail = *share.thumbnailImageData;
    SqlParam thumbnailParam = share.thumbnailImageData ? SqlParam(thumbnail) : std::monostate{};
    auto updated = connection.execute(
        "UPDATE shares SET record_id = ?, root_name = ?, title = ?, thumbnail = ? "
        "WHERE zone_id = ?",
        {recordRowId, share.rootRecordName, param(share.title), thumbnailParam, zoneRowId});
    if (!updated) {
        auto token = randomHex(16);
        auto url = makeShareUrl(token, share.title);
        connection.execute(
            "INSERT INTO shares (zone_id, record_id, token, url, root_name, title, thumbnail) "
            "VALUES (?, ?, ?, ?, ?, ?, ?)",
            {zoneRowId, recordRowId, token, url, share.rootRecordName, param(share.title),
             thumbnailParam});
    }

    std::vector<StoredParticipant> stored;
    connection.execute(
        "SELECT account_id, email_key, status FROM participants WHERE zone_id = ? "
        "AND position > 0",
        {zoneRowId}, [&](const SqlRow& row) {
            std::optional<std::int64_t> accountId;
            if (!row.isNull(0)) accountId = row.integer(0);
            stored.push_back(
                {accountId, optionalText(row, 1), acceptanceStatusFrom(row.integer(2))});
        });
    connection.execute("DELETE FROM participants WHERE zone_id = ?", {zoneRowId});

    auto insert = [&](std::int64_t position, const ParticipantEntry& entry, ParticipantType type,
                      AcceptanceStatus status) {
        SqlParam account = entry.accountId ? SqlParam(*entry.accountId) : std::monostate{};
        connection.execute(
            "INSERT INTO participants (zone_id, position, account_id, email, email_key, type, "
            "status, permission) VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
            {zoneRowId, position, account, param(entry.email), param(entry.emailKey), number(type),
             number(status), number(entry.permission)});
    };
    ParticipantEntry ownerEntry{owner.id, owner.email, std::nullopt, Permission::readWrite,
                                AcceptanceStatus::accepted};
    insert(0, ownerEntry, ParticipantType::owner, AcceptanceStatus::accepted);
    std::int64_t position = 1;
    for (const auto& entry : participants) {
        auto status = AcceptanceStatus::pending;
        for (const auto& known : stored) {
            if (!samePerson(known, entry)) continue;
            status = known.status;
            // Someone who left or was removed is invited again only by a fresh entry (from a
            // look-up) or a pending one; a stale copy that still shows them accepted does not
            // bring them back.
            bool invitedAgain = known.status == AcceptanceStatus::removed &&
                                (entry.requestedStatus == AcceptanceStatus::unknown ||
                                 entry.requestedStatus == AcceptanceStatus::pending);
            if (invitedAgain || status == AcceptanceStatus::unknown)
                status = AcceptanceStatus::pending;
            break;
        }
        insert(position++, entry, ParticipantType::privateUser, status);
    }
    return readShare(connection, zoneRowId).value_or(Share{});
}

std::optional<Share> readShare(Connection& connection, std::int64_t zoneRowId) {
    std::optional<Share> share;
    connection.execute("SELECT url, root_name, title, thumbnail FROM shares WHERE zone_id = ?",
                       {zoneRowId}, [&](const SqlRow& row) {
                           share.emplace();
                           share->url = std::string(row.text(0));
                           share->rootRecordName = std::string(row.text(1));
                           share->title = optionalText(row, 2);
                           if (!row.isNull(3)) {
                               auto bytes = row.blob(3);
                               share->thumbnailImageData = Bytes(bytes.begin(), bytes.end());
                           }
                       });
    if (!share) return share;
    connection.execute(
        "SELECT participants.type, participants.status, participants.permission, "
        "participants.email, accounts.id, accounts.record_name, accounts.email, "
        "accounts.given_name, accounts.family_name FROM participants "
        "LEFT JOIN accounts ON accounts.id = participants.account_id "
        "WHERE participants.zone_id = ? ORDER BY participants.position",
        {zoneRowId}, [&](const SqlRow& row) {
            ShareParticipant participant;
            participant.type = participantTypeFrom(row.integer(0));
            participant.acceptanceStatus = acceptanceStatusFrom(row.integer(1));
            participant.permission = permissionFrom(row.integer(2));
            auto& identity = participant.userIdentity;
            if (!row.isNull(4)) {
                identity.userRecordName = std::string(row.text(5));
                identity.emailAddress = optionalText(row, 6);
                NameComponents name{optionalText(row, 7), optionalText(row, 8)};
                if (name.givenName || name.familyName) identity.nameComponents = name;
                identity.hasAccount = true;
            } else {
                identity.emailAddress = optionalText(row, 3);
            }
            share->participants.push_back(std::move(participant));
        });
    return share;
}

std::optional<std::int64_t> shareRecordRowId(Connection& connection, std::int64_t zoneRowId) {
    return queryInteger(connection, "SELECT record_id FROM shares WHERE zone_id = ?", {zoneRowId});
}

void deleteShare(Connection& connection, std::int64_t zoneRowId) {
    connection.execute("DELETE FROM participants WHERE zone_id = ?", {zoneRowId});
    connection.execute("DELETE FROM shares WHERE zone_id = ?", {zoneRowId});
}

}  // namespace corvane::cloud
