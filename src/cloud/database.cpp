#include "cloud/database.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "base/trace.h"
#include "cloud/asset_store.h"
#include "cloud/error_codes.h"
#include "cloud/partial_failure.h"
#include "cloud/record_reader.h"
#include "cloud/record_writer.h"
#include "cloud/session.h"
#include "cloud/share_store.h"
#include "cloud/team_operations.h"
#include "cloud/team_records.h"
#include "cloud/zone_access.h"

namespace corvane::cloud {

std::string_view scopeName(DatabaseScope scope) {
    switch (scope) {
        case DatabaseScope::publicScope:
            return "public";
        case DatabaseScope::privateScope:
            return "private";
        case DatabaseScope::sharedScope:
            return "shared";
    }
    return "unknown";
}

ZoneId Database::saveRecordZone(const ZoneId& zoneId) {
    if (scope_ != DatabaseScope::privateScope)
        throw CloudError(kPermissionFailure, "Zones cannot be created in the " +
                                                 std::string(scopeName(scope_)) + " database");
    if (!isOwnName(session_.account(), zoneId.ownerName))
        throw CloudError(kPermissionFailure,
                         "Zone " + zoneId.zoneName + " would belong to someone else");
    if (zoneId.zoneName.empty()) throw CloudError(kInvalidArguments, "A zone needs a name");
    auto connection = session_.pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql) {
        teamCreateZone(*connection, zoneId.zoneName);
        return zoneId;
    }
    auto now = millisecondsOf(std::chrono::system_clock::now());
    connection->execute(
        "INSERT INTO zones (owner_id, name, created) VALUES (?, ?, ?) "
        "ON CONFLICT (owner_id, name) DO NOTHING",
        {session_.account().id, zoneId.zoneName, now});
    return zoneId;
}

void Database::deleteRecordZone(const ZoneId& zoneId) {
    session_.account();  // signs in first: the login and the store's layout are checked once
    auto connection = session_.pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql) {
        teamDeleteZone(*connection, scope_, zoneId);
        return;
    }
    Transaction transaction(*connection, TransactionMode::write);
    auto grant = findZone(*connection, session_.account(), scope_, zoneId);
    if (!grant) throw CloudError(kZoneNotFound, "Zone " + zoneId.zoneName + " does not exist");

    if (!grant->owned) {
        connection->execute(
            "UPDATE participants SET status = ? WHERE zone_id = ? AND account_id = ?",
            {std::int64_t{static_cast<int>(AcceptanceStatus::removed)}, grant->zoneRowId,
             session_.account().id});
        transaction.commit();
        return;
    }

    std::set<std::string> released;
    connection->execute(
        "SELECT DISTINCT asset_refs.hash FROM asset_refs "
        "JOIN records ON records.id = asset_refs.record_id WHERE records.zone_id = ?",
        {grant->zoneRowId}, [&](const SqlRow& row) { released.insert(std::string(row.text(0))); });
    connection->execute(
        "DELETE FROM asset_refs WHERE record_id IN (SELECT id FROM records WHERE zone_id = ?)",
        {grant->zoneRowId});
    connection->execute("DELETE FROM records WHERE zone_id = ?", {grant->zoneRowId});
    deleteShare(*connection, grant->zoneRowId);
    connection->execute("DELETE FROM zones WHERE id = ?", {grant->zoneRowId});
    AssetStore(*connection).collect(released);
    transaction.commit();

    // The zone is gone whatever happens here; returning pages to the file system is a bonus.
    try {
        connection->releaseFreeSpace();
    } catch (const CloudError& error) {
        trace(TraceModule::error, error.what());
    }
}

std::vector<ZoneId> Database::fetchAllRecordZones() {
    session_.account();
    auto connection = session_.pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql) return teamListZones(*connection, scope_);
    std::vector<ZoneId> zones;
    if (scope_ == DatabaseScope::privateScope) {
        connection->execute("SELECT name FROM zones WHERE owner_id = ? ORDER BY id",
                            {session_.account().id}, [&](const SqlRow& row) {
                                zones.push_back(ZoneId{std::string(row.text(0)),
                                                       std::string(kCurrentUserDefaultName)});
                            });
    } else if (scope_ == DatabaseScope::sharedScope) {
        connection->execute(
            "SELECT zones.name, accounts.record_name FROM participants "
            "JOIN zones ON zones.id = participants.zone_id "
            "JOIN accounts ON accounts.id = zones.owner_id "
            "WHERE participants.account_id = ? AND participants.status = ? "
            "AND zones.owner_id <> ? ORDER BY zones.id",
            {session_.account().id, std::int64_t{static_cast<int>(AcceptanceStatus::accepted)},
             session_.account().id},
            [&](const SqlRow& row) {
                zones.push_back(ZoneId{std::string(row.text(0)), std::string(row.text(1))});
            });
    }
    return zones;
}

std::vector<ZoneVersion> Database::fetchZoneVersions(std::span<const std::string> recordNames) {
    session_.account();
    auto connection = session_.pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql)
        return teamZoneVersions(*connection, scope_, recordNames);
    std::vector<SqlParam> params;
    std::string names;
    for (const auto& name : recordNames) {
        names += names.empty() ? "?" : ", ?";
        params.emplace_back(std::string_view(name));
    }
    // The records' change tags by name, then each person's place, account, answer and right.
    const std::string version =
        "ifnull((SELECT group_concat(tag, ' ') FROM (SELECT name || ':' || change_tag AS tag "
        "FROM records WHERE records.zone_id = zones.id AND records.name IN (" +
        (names.empty() ? std::string("NULL") : names) +
        ") ORDER BY name)), '') || '|' || ifnull((SELECT group_concat(person, ' ') FROM "
        "(SELECT position || ':' || ifnull(account_id, '') || ':' || status || ':' || "
        "permission AS person FROM participants WHERE participants.zone_id = zones.id "
        "ORDER BY position)), '')";
    std::vector<ZoneVersion> versions;
    const std::int64_t me = session_.account().id;
    if (scope_ == DatabaseScope::privateScope) {
        params.emplace_back(me);
        connection->execute(
            "SELECT zones.name, " + version + " FROM zones WHERE owner_id = ? ORDER BY id", params,
            [&](const SqlRow& row) {
                versions.push_back(
                    {ZoneId{std::string(row.text(0)), std::string(kCurrentUserDefaultName)},
                     std::string(row.text(1))});
            });
    } else if (scope_ == DatabaseScope::sharedScope) {
        params.insert(params.end(),
                      {me, std::int64_t{static_cast<int>(AcceptanceStatus::accepted)}, me});
        connection->execute(
            "SELECT zones.name, accounts.record_name, " + version +
                " FROM zones JOIN accounts ON accounts.id = zones.owner_id WHERE EXISTS (SELECT 1 "
                "FROM participants mine WHERE mine.zone_id = zones.id AND mine.account_id = ? AND "
                "mine.status = ?) AND zones.owner_id <> ? ORDER BY zones.id",
            params, [&](const SqlRow& row) {
                versions.push_back({ZoneId{std::string(row.text(0)), std::string(row.text(1))},
                                    std::string(row.text(2))});
            });
    }
    return versions;
}

void Database::fetchRecords(std::span<const RecordId> ids,
                            const std::function<void(FetchResult&&)>& perRecord) {
    session_.account();
    for (std::size_t start = 0; start < ids.size(); start += kFetchGroupSize) {
        auto group = ids.subspan(start, std::min(kFetchGroupSize, ids.size() - start));
        // Names by zone, keeping where each id sits so results go back in the caller's order.
        std::map<ZoneId, std::vector<std::size_t>> byZone;
        for (std::size_t i = 0; i < group.size(); ++i)
            byZone[group[i].zoneId].push_back(i);

        std::vector<std::optional<FetchResult>> results(group.size());
        {
            auto connection = session_.pool.acquire();
            Transaction transaction(*connection, TransactionMode::read);
            bool team = connection->dialect() == SqlDialect::postgresql;
            for (const auto& [zoneId, positions] : byZone) {
                if (team) {
                    std::vector<std::string> names;
                    for (auto i : positions)
                        names.push_back(group[i].recordName);
                    auto found = readTeamRecords(*connection, session_.assetCache, scope_, zoneId,
                                                 std::nullopt, names);
                    for (std::size_t k = 0; k < positions.size(); ++k)
                        results[positions[k]] = std::move(found[k]);
                    continue;
                }
                auto grant = findZone(*connection, session_.account(), scope_, zoneId);
                if (!grant) {
                    for (auto i : positions) {
                        results[i] =
                            FetchResult{group[i], std::nullopt,
                                        CloudError(kUnknownItem, "Record zone " + zoneId.zoneName +
                                                                     " does not exist")};
                    }
                    continue;
                }
                std::vector<std::string> names;
                for (auto i : positions)
                    names.push_back(group[i].recordName);
                auto found =
                    readRecords(*connection, session_.assetCache, grant->zoneRowId, zoneId, names);
                for (std::size_t k = 0; k < positions.size(); ++k)
                    results[positions[k]] = std::move(found[k]);
            }
            transaction.commit();
        }
        for (auto& result : results)
            perRecord(std::move(*result));
    }
}

std::vector<FetchResult> Database::fetchRecords(std::span<const RecordId> ids) {
    std::vector<FetchResult> results;
    results.reserve(ids.size());
    fetchRecords(ids, [&](FetchResult&& result) { results.push_back(std::move(result)); });
    return results;
}

std::vector<Record> Database::modifyRecords(const ModifyRecordsOperation& operation) {
    auto outcomes = saveRecords(session_, scope_, operation.recordsToSave, operation.savePolicy,
                                operation.atomic);
    std::vector<Record> saved;
    std::map<RecordId, CloudError> errors;
    for (auto& outcome : outcomes) {
        if (outcome.saved) {
            if (operation.perRecordProgress) operation.perRecordProgress(*outcome.saved, 1.0);
            if (operation.perRecordCompletion)
                operation.perRecordCompletion(outcome.recordId, &*outcome.saved, nullptr);
            saved.push_back(std::move(*outcome.saved));
        } else {
            if (operation.perRecordCompletion)
                operation.perRecordCompletion(outcome.recordId, nullptr, &*outcome.error);
            errors.emplace(outcome.recordId, std::move(*outcome.error));
        }
    }
    if (!errors.empty()) throw PartialFailure(std::move(errors));
    return saved;
}

}  // namespace corvane::cloud
