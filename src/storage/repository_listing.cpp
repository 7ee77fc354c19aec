#include "storage/repository_listing.h"

#include "base/error.h"
#include "base/trace.h"
#include "storage/stored_records.h"

namespace corvane {

std::vector<std::shared_ptr<Repository>> RepositoryListing::list(cloud::Database& database) {
    const auto scope = database.databaseScope();
    const std::string scopeText(cloud::scopeName(scope));
    const std::vector<std::string> names{kRepositoryRecordName, kShareRecordName};
    trace(TraceModule::request, "fetching " + scopeText + " zones");
    auto versions = database.fetchZoneVersions(names);
    trace(TraceModule::response,
          "fetched " + std::to_string(versions.size()) + " " + scopeText + " zones");

    std::map<cloud::ZoneId, Listed> known;
    {
        std::lock_guard lock(mutex_);
        known = listed_[scope];
    }
    std::map<cloud::ZoneId, Listed> now;
    std::vector<cloud::RecordId> ids;
    for (const auto& [zone, version] : versions) {
        auto kept = known.find(zone);
        if (kept != known.end() && kept->second.version == version) {
            now.emplace(zone, kept->second);
            continue;
        }
        ids.push_back({kRepositoryRecordName, zone});
        ids.push_back({kShareRecordName, zone});
    }
    if (!ids.empty()) {
        trace(TraceModule::request,
              "fetching " + std::to_string(ids.size() / 2) + " " + scopeText + " repositories");
        std::map<cloud::RecordId, std::optional<cloud::Record>> records;
        database.fetchRecords(ids, [&](cloud::FetchResult&& result) {
            records[result.recordId] = std::move(result.record);
        });
        for (const auto& [zone, version] : versions) {
            if (now.count(zone)) continue;
            const auto& record = records[{kRepositoryRecordName, zone}];
            const auto& share = records[{kShareRecordName, zone}];
            if (!record) {
                trace(TraceModule::error, "Missing repository record for zone " + zone.zoneName);
                continue;
            }
            if (!share || !share->isShare()) {
                const auto* name = record->get<std::string>("name");
                trace(TraceModule::error,
                      "Missing share record for repository " + (name ? *name : zone.zoneName));
                continue;
            }
            // One repository that cannot be read (a newer Corvane's, a damaged one) is listed
            // with its error; the others are listed as they are.
            std::shared_ptr<Repository> repository;
            try {
                repository = decodeRepositoryRecord(*record, *share);
            } catch (const Error& failure) {
                const auto* name = record->get<std::string>("name");
                repository = std::make_shared<Repository>(zone.zoneName, zone.ownerName,
                                                          name ? *name : zone.zoneName, record,
                                                          share, RepositoryContent{}, 0);
                repository->setLoadError(failure.what());
                trace(TraceModule::error,
                      "Failed to read repository " + repository->name() + ": " + failure.what());
            }
            now.emplace(zone, Listed{version, std::move(repository)});
        }
    }

    std::vector<std::shared_ptr<Repository>> repositories;
    std::string shown;
    for (const auto& version : versions) {
        auto listed = now.find(version.zoneId);
        if (listed == now.end()) continue;
        repositories.push_back(listed->second.repository);
        shown += (shown.empty() ? "" : ", ") + repositories.back()->name();
    }
    trace(TraceModule::response, "Fetched " + std::to_string(repositories.size()) + " " +
                                     scopeText + " repositories: " + shown);
    {
        std::lock_guard lock(mutex_);
        listed_[scope] = std::move(now);
    }
    return repositories;
}

}  // namespace corvane
