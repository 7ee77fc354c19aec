#include "cloud/team_operations.h"

#include "base/error.h"
#include "cloud/error_codes.h"
#include "cloud/share_store.h"
#include "cloud/team_records.h"

namespace corvane::cloud {
namespace {

std::optional<std::string> optionalText(const SqlRow& row, int column) {
    if (row.isNull(column)) return std::nullopt;
    return std::string(row.text(column));
}

std::int64_t scopeNumber(DatabaseScope scope) {
    return static_cast<std::int64_t>(scope);
}

}  // namespace

Account teamSignIn(Connection& connection) {
    std::optional<Account> account;
    std::int64_t layout = 0;
    try {
        connection.execute(
            "SELECT id, record_name, email, given_name, family_name, layout FROM "
            "corvane.sign_in()",
            {}, [&](const SqlRow& row) {
                account = Account{row.integer(0),
                                  std::string(row.text(1)),
                                  optionalText(row, 2),
                                  {optionalText(row, 3), optionalText(row, 4)}};
                layout = row.integer(5);
            });
    } catch (const CloudError& error) {
        // No such function, or none to call: nobody made this database a team store, or one of
        // an older layout. Anything else (a refused login, a lost connection) is what it is.
        if (error.code() != kInternalError && error.code() != kPermissionFailure) throw;
        bool store =
            queryInteger(connection, "SELECT 1 FROM pg_namespace WHERE nspname = 'corvane'", {})
                .has_value();
        throw CloudError(kBadContainer,
                         store ? "The cloud database is not set up for this version of "
                                 "Corvane; its administrator runs \"corvane store init\" on it"
                               : "The cloud database is not a team store; its administrator "
                                 "runs \"corvane store init\" on it");
    }
    if (!account) throw CloudError(kNotAuthenticated, "The team store did not sign the role in");
    if (layout > kTeamLayout)
        throw CloudError(kIncompatibleVersion,
                         "The cloud database was written by a newer version of Corvane (layout " +
                             std::to_string(layout) + "). Try updating Corvane.");
    if (layout < kTeamLayout)
        throw CloudError(kBadContainer,
                         "The cloud database is not set up for this version of Corvane; its "
                         "administrator runs \"corvane store init\" on it");
    return *account;
}

void teamCreateZone(Connection& connection, const std::string& zoneName) {
    connection.execute("SELECT corvane.create_zone(?)", {zoneName});
}

void teamDeleteZone(Connection& connection, DatabaseScope scope, const ZoneId& zoneId) {
    connection.execute("SELECT corvane.delete_zone(?, ?, ?)",
                       {scopeNumber(scope), zoneId.ownerName, zoneId.zoneName});
}

std::vector<ZoneId> teamListZones(Connection& connection, DatabaseScope scope) {
    std::vector<ZoneId> zones;
    connection.execute(
        "SELECT zone, owner FROM corvane.list_zones(?)", {scopeNumber(scope)},
        [&](const SqlRow& row) {
            zones.push_back(ZoneId{
                std::string(row.text(0)),
                row.isNull(1) ? std::string(kCurrentUserDefaultName) : std::string(row.text(1))});
        });
    return zones;
}

std::vector<ZoneVersion> teamZoneVersions(Connection& connection, DatabaseScope scope,
                                          std::span<const std::string> names) {
    std::vector<ZoneVersion> versions;
    connection.execute(
        "SELECT zone, owner, version FROM corvane.zone_versions(?, ?)",
        {scopeNumber(scope), TextList(names)}, [&](const SqlRow& row) {
            versions.push_back({ZoneId{std::string(row.text(0)),
                                       row.isNull(1) ? std::string(kCurrentUserDefaultName)
                                                     : std::string(row.text(1))},
                                std::string(row.text(2))});
        });
    return versions;
}

std::optional<ShareParticipant> teamLookUpParticipant(Connection& connection,
                                                      std::string_view email) {
    ShareParticipant participant;
    auto& identity = participant.userIdentity;
    connection.execute(
        "SELECT record_name, email, given_name, family_name FROM corvane.look_up_person(?)",
        {email}, [&](const SqlRow& row) {
            identity.userRecordName = std::string(row.text(0));
            identity.emailAddress = optionalText(row, 1);
            NameComponents name{optionalText(row, 2), optionalText(row, 3)};
            if (name.givenName || name.familyName) identity.nameComponents = name;
            identity.hasAccount = true;
        });
    if (!identity.hasAccount) identity.emailAddress = std::string(email);
    return participant;
}

ShareMetadata teamShareMetadata(Connection& connection, const AssetCache& cache,
                                const std::string& token, bool shouldFetchRootRecord) {
    ShareMetadata metadata;
    std::string zoneName, rootName, shareName;
    bool owner = false;
    connection.execute(
        "SELECT zone, owner_record_name, owner_email, owner_given_name, owner_family_name, "
        "root_name, share_name, is_owner, type, status, permission FROM corvane.open_share(?)",
        {token}, [&](const SqlRow& row) {
            zoneName = row.text(0);
            auto& identity = metadata.ownerIdentity;
            identity.userRecordName = std::string(row.text(1));
            identity.emailAddress = optionalText(row, 2);
            NameComponents name{optionalText(row, 3), optionalText(row, 4)};
            if (name.givenName || name.familyName) identity.nameComponents = name;
            identity.hasAccount = true;
            rootName = row.text(5);
            shareName = row.text(6);
            owner = row.integer(7) != 0;
            metadata.participantType = participantTypeFrom(row.integer(8));
            metadata.participantStatus = acceptanceStatusFrom(row.integer(9));
            metadata.participantPermission = permissionFrom(row.integer(10));
        });
    if (zoneName.empty()) throw CloudError(kUnknownItem, "The share does not exist");

    ZoneId zoneId{zoneName, owner ? std::string(kCurrentUserDefaultName)
                                  : *metadata.ownerIdentity.userRecordName};
    std::vector<std::string> names{shareName};
    if (shouldFetchRootRecord) names.push_back(rootName);
    auto results =
        readTeamRecords(connection, cache, DatabaseScope::sharedScope, zoneId, token, names);
    if (results[0].error) throw *results[0].error;
    metadata.share = std::move(*results[0].record);
    metadata.rootRecordId = RecordId{rootName, zoneId};
    if (shouldFetchRootRecord) {
        auto& root = results[1];
        if (root.error && root.error->code() != kUnknownItem) throw *root.error;
        metadata.rootRecord = std::move(root.record);
    }
    return metadata;
}

void teamAcceptShare(Connection& connection, const std::string& token) {
    connection.execute("SELECT corvane.accept_share(?)", {token});
}

StorageUsage teamStorageUsage(Connection& connection) {
    StorageUsage usage;
    connection.execute("SELECT contents, bytes FROM corvane.storage_usage()", {},
                       [&](const SqlRow& row) {
                           usage.assetCount = row.integer(0);
                           usage.assetBytes = row.integer(1);
                       });
    return usage;
}

}  // namespace corvane::cloud
