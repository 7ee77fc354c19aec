#include "cloud/share_access.h"

#include <string>
#include <vector>

#include "cloud/error_codes.h"
#include "cloud/record_reader.h"
#include "cloud/share_store.h"
#include "cloud/share_url.h"
#include "cloud/team_operations.h"

namespace corvane::cloud {
namespace {

struct SharedZone {
    std::int64_t zoneRowId = 0;
    std::int64_t shareRecordRowId = 0;
    std::string rootName;
    std::string zoneName;
    std::int64_t ownerId = 0;
};

// The account's place in a share.
struct Place {
    std::optional<std::int64_t> position;  // none for the owner
    ParticipantType type = ParticipantType::owner;
    AcceptanceStatus status = AcceptanceStatus::accepted;
    Permission permission = Permission::readWrite;
};

CloudError noShare() {
    return CloudError(kUnknownItem, "The share does not exist");
}

std::string tokenOf(std::string_view url) {
    auto token = shareToken(url);
    if (!token) throw CloudError(kInvalidArguments, "Invalid share URL");
    return *token;
}

SharedZone locate(Connection& connection, const std::string& token) {
    std::optional<SharedZone> zone;
    connection.execute(
        "SELECT shares.zone_id, shares.record_id, shares.root_name, zones.name, zones.owner_id "
        "FROM shares JOIN zones ON zones.id = shares.zone_id WHERE shares.token = ?",
        {token}, [&](const SqlRow& row) {
            zone = SharedZone{row.integer(0), row.integer(1), std::string(row.text(2)),
                              std::string(row.text(3)), row.integer(4)};
        });
    if (!zone) throw noShare();
    return *zone;
}

Place placeOf(Connection& connection, const Account& account, const SharedZone& zone) {
    if (zone.ownerId == account.id) return Place{};
    std::optional<Place> place;
    std::optional<std::string> key;
    if (account.email) key = emailKey(*account.email);
    SqlParam keyParam = key ? SqlParam(std::string_view(*key)) : std::monostate{};
    connection.execute(
        "SELECT position, type, status, permission FROM participants WHERE zone_id = ? "
        "AND (account_id = ? OR (account_id IS NULL AND email_key = ?)) ORDER BY position",
        {zone.zoneRowId, account.id, keyParam}, [&](const SqlRow& row) {
            if (place) return;
            place = Place{row.integer(0), participantTypeFrom(row.integer(1)),
                          acceptanceStatusFrom(row.integer(2)), permissionFrom(row.integer(3))};
        });
    // Someone the owner removed, or who left, no longer reaches the share.
    if (!place || place->status == AcceptanceStatus::removed) throw noShare();
    return *place;
}

}  // namespace

std::optional<ShareParticipant> lookUpParticipant(Session& session, std::string_view email) {
    auto at = email.find('@');
    if (email.empty() || at == 0 || at == std::string_view::npos || at + 1 == email.size())
        return std::nullopt;
    session.account();  // signs in first
    auto connection = session.pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql)
        return teamLookUpParticipant(*connection, email);
    ShareParticipant participant;
    if (auto account = findAccountByEmail(*connection, email)) {
        participant.userIdentity = account->identity();
    } else {
        participant.userIdentity.emailAddress = std::string(email);
    }
    return participant;
}

ShareMetadata fetchShareMetadata(Session& session, std::string_view url,
                                 bool shouldFetchRootRecord) {
    auto token = tokenOf(url);
    session.account();
    auto connection = session.pool.acquire();
    Transaction transaction(*connection, TransactionMode::read);
    if (connection->dialect() == SqlDialect::postgresql) {
        auto metadata =
            teamShareMetadata(*connection, session.assetCache, token, shouldFetchRootRecord);
        transaction.commit();
        return metadata;
    }
    auto zone = locate(*connection, token);
    auto place = placeOf(*connection, session.account(), zone);
    auto owner = findAccountById(*connection, zone.ownerId);
    auto shareName =
        queryText(*connection, "SELECT name FROM records WHERE id = ?", {zone.shareRecordRowId});
    if (!owner || !shareName) throw noShare();

    ZoneId zoneId{zone.zoneName,
                  place.position ? owner->recordName : std::string(kCurrentUserDefaultName)};
    std::vector<std::string> names{*shareName};
    if (shouldFetchRootRecord) names.push_back(zone.rootName);
    auto results = readRecords(*connection, session.assetCache, zone.zoneRowId, zoneId, names);
    transaction.commit();

    if (results[0].error) throw *results[0].error;
    ShareMetadata metadata;
    metadata.share = std::move(*results[0].record);
    metadata.rootRecordId = RecordId{zone.rootName, zoneId};
    if (shouldFetchRootRecord) {
        auto& root = results[1];
        if (root.error && root.error->code() != kUnknownItem) throw *root.error;
        metadata.rootRecord = std::move(root.record);
    }
    metadata.ownerIdentity = owner->identity();
    metadata.participantType = place.type;
    metadata.participantStatus = place.status;
    metadata.participantPermission = place.permission;
    return metadata;
}

void acceptShare(Session& session, const ShareMetadata& metadata) {
    if (!metadata.share.share || !metadata.share.share->url) throw noShare();
    auto token = tokenOf(*metadata.share.share->url);
    session.account();
    auto connection = session.pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql) {
        teamAcceptShare(*connection, token);
        return;
    }
    Transaction transaction(*connection, TransactionMode::write);
    auto zone = locate(*connection, token);
    auto place = placeOf(*connection, session.account(), zone);
    if (place.position) {
        // Binding the account also settles an invitation that named only its address.
        connection->execute(
            "UPDATE participants SET status = ?, account_id = ? WHERE zone_id = ? "
            "AND position = ?",
            {std::int64_t{static_cast<int>(AcceptanceStatus::accepted)}, session.account().id,
             zone.zoneRowId, *place.position});
    }
    transaction.commit();
}

}  // namespace corvane::cloud
