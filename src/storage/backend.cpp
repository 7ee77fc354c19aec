#include "storage/backend.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "base/error.h"
#include "base/trace.h"
#include "cloud/error_codes.h"
#include "cloud/partial_failure.h"
#include "objects/sha1.h"
#include "storage/file_io.h"
#include "storage/incremental_meta.h"
#include "storage/pack_consolidator.h"
#include "storage/repository_meta.h"
#include "storage/stored_records.h"

namespace corvane {

namespace {

using cloud::DatabaseScope;

std::string scopeText(const cloud::Database& database) {
    return std::string(cloud::scopeName(database.databaseScope()));
}

cloud::ZoneId zoneOf(const std::string& name, const std::string& owner) {
    return {hexString(sha1(asBytes(name))), owner};
}

template <typename T>
std::vector<std::vector<T>> groupsOf(const std::vector<T>& items, std::size_t size) {
    std::vector<std::vector<T>> groups;
    for (std::size_t start = 0; start < items.size(); start += size) {
        auto end = std::min(items.size(), start + size);
        groups.emplace_back(items.begin() + static_cast<std::ptrdiff_t>(start),
                            items.begin() + static_cast<std::ptrdiff_t>(end));
    }
    return groups;
}

// A save refused because the stored record changed, alone or as the one failure of a batch.
bool isRecordChanged(const CloudError& error) {
    if (error.code() == cloud::kServerRecordChanged) return true;
    const auto* partial = dynamic_cast<const cloud::PartialFailure*>(&error);
    if (!partial) return false;
    return std::any_of(
        partial->partialErrors().begin(), partial->partialErrors().end(),
        [](const auto& entry) { return entry.second.code() == cloud::kServerRecordChanged; });
}

}  // namespace

Backend::Backend(cloud::Container& container, Store& store, MainQueue& mainQueue,
                 Callbacks callbacks)
    : container_(container),
      store_(store),
      mainQueue_(mainQueue),
      callbacks_(std::move(callbacks)),
      incrementalMetaThreshold_(kIncrementalMetaThreshold) {
    fetcher_ = std::make_unique<ObjectFetcher>(
        store_,
        [this](const std::string& name, const std::string& owner,
               const std::set<std::string>& packIds) { return fetchPacks(name, owner, packIds); },
        [this](const std::set<std::string>& ids) {
            if (callbacks_.objectsLoaded) {
                mainQueue_.async([this, ids] { callbacks_.objectsLoaded(ids); });
            }
        });
    queue_ = std::make_unique<WorkQueue>("backend", 4);
    consolidator_ = std::make_unique<PackConsolidator>(*this);
}

Backend::~Backend() {
    consolidator_.reset();
    queue_.reset();
    fetcher_.reset();
}

cloud::Database& Backend::databaseFor(const std::string& owner) {
    return owner == cloud::kCurrentUserDefaultName ? container_.privateCloudDatabase()
                                                   : container_.sharedCloudDatabase();
}

template <typename T, typename Work>
void Backend::runAsync(Completion<T> done, Work work) {
    queue_->async([this, done = std::move(done), work = std::move(work)]() mutable {
        std::optional<Result<T>> outcome;
        try {
            outcome.emplace(work());
        } catch (...) {
            outcome.emplace(std::current_exception());
        }
        mainQueue_.async([done = std::move(done), result = std::move(*outcome)]() mutable {
            done(std::move(result));
        });
    });
}

// Fetches records in groups; every id gets a result.
std::map<cloud::RecordId, cloud::FetchResult> Backend::fetchRecords(
    cloud::Database& database, const std::vector<cloud::RecordId>& ids) {
    std::map<cloud::RecordId, cloud::FetchResult> results;
    for (const auto& group : groupsOf(ids, kFetchGroup)) {
        for (auto& result : database.fetchRecords(group)) {
            auto id = result.recordId;
            results.insert_or_assign(id, std::move(result));
        }
    }
    return results;
}

void Backend::saveRecords(cloud::Database& database, const std::vector<cloud::Record>& records) {
    const std::string scope = scopeText(database);
    trace(TraceModule::request,
          "saving " + std::to_string(records.size()) + " " + scope + " records");
    for (const auto& group : groupsOf(records, kSaveGroup)) {
        cloud::ModifyRecordsOperation operation;
        operation.recordsToSave = group;
        operation.savePolicy = cloud::SavePolicy::ifServerRecordUnchanged;
        operation.atomic = true;
        database.modifyRecords(operation);
        trace(TraceModule::response,
              "saved " + std::to_string(group.size()) + " " + scope + " records");
    }
}

std::pair<cloud::Record, cloud::Record> Backend::fetchRepositoryRecords(cloud::Database& database,
                                                                        const cloud::ZoneId& zone,
                                                                        const std::string& name) {
    auto results =
        fetchRecords(database, {{kRepositoryRecordName, zone}, {kShareRecordName, zone}});
    auto& repository = results[{kRepositoryRecordName, zone}];
    auto& share = results[{kShareRecordName, zone}];
    const std::string scope = scopeText(database);
    if (!repository.record || !share.record || !share.record->isShare()) {
        throw NotFound(scope + " repository " + name + " does not exist");
    }
    return {std::move(*repository.record), std::move(*share.record)};
}

std::shared_ptr<Repository> Backend::loadRepository(cloud::Database& database,
                                                    const cloud::ZoneId& zone,
                                                    const std::string& name) {
    auto [record, share] = fetchRepositoryRecords(database, zone, name);
    return decodeRepositoryRecord(record, share);
}

std::shared_ptr<Repository> Backend::servedRepository(const cloud::ZoneId& zone) {
    std::lock_guard lock(servedMutex_);
    for (const auto& repository : served_) {
        if (repository->id() == zone.zoneName && repository->owner() == zone.ownerName)
            return repository;
    }
    return nullptr;
}

void Backend::forgetServed(const cloud::ZoneId& zone) {
    std::lock_guard lock(servedMutex_);
    forgetServedLocked(zone);
}

void Backend::forgetServedLocked(const cloud::ZoneId& zone) {
    served_.remove_if([&](const std::shared_ptr<Repository>& kept) {
        return kept->id() == zone.zoneName && kept->owner() == zone.ownerName;
    });
}

void Backend::keepServed(const std::shared_ptr<Repository>& repository) {
    std::lock_guard lock(servedMutex_);
    forgetServedLocked({repository->id(), repository->owner()});
    served_.push_front(repository);
    if (served_.size() > kServedRepositories) served_.pop_back();
}

std::shared_ptr<Repository> Backend::fetchRepository(const std::string& name,
                                                     const std::string& owner) {
    auto& database = databaseFor(owner);
    const std::string scope = scopeText(database);
    trace(TraceModule::request, "Fetching " + scope + " repository " + name);
    auto zone = zoneOf(name, owner);
    std::pair<cloud::Record, cloud::Record> records;
    try {
        records = fetchRepositoryRecords(database, zone, name);
    } catch (const NotFound&) {
        forgetServed(zone);  // deleted: its decoded content need not stay in memory
        throw;
    }
    auto& [record, share] = records;
    auto repository = servedRepository(zone);
    auto unchanged = [](const std::optional<cloud::Record>& kept, const cloud::Record& stored) {
        return kept && kept->recordChangeTag && kept->recordChangeTag == stored.recordChangeTag;
    };
    // Someone accepting or leaving changes the people but not the share's change tag.
    auto sameShare = [&](const std::optional<cloud::Record>& kept, const cloud::Record& stored) {
        return unchanged(kept, stored) && kept->share && stored.share &&
               kept->share->participants == stored.share->participants;
    };
    // A push through this process updates the kept object with the record it saved; anything
    // saved elsewhere shows as a new change tag.
    if (!repository || !unchanged(repository->record(), record)) {
        repository = decodeRepositoryRecord(record, share, repository.get());
    } else if (!sameShare(repository->share(), share)) {
        repository =
            std::make_shared<Repository>(zone.zoneName, zone.ownerName, repository->name(), record,
                                         share, *repository->content(), repository->metaSize());
    }
    keepServed(repository);
    trace(TraceModule::response, "Fetched " + scope + " repository " + name);
    return repository;
}

void Backend::fetchRepository(const std::string& name, const std::string& owner,
                              Completion<std::shared_ptr<Repository>> done) {
    runAsync<std::shared_ptr<Repository>>(std::move(done),
                                          [=, this] { return fetchRepository(name, owner); });
}

void Backend::fetchRepositories(Completion<std::vector<std::shared_ptr<Repository>>> done) {
    runAsync<std::vector<std::shared_ptr<Repository>>>(std::move(done), [this] {
        auto all = listing_.list(container_.privateCloudDatabase());
        auto shared = listing_.list(container_.sharedCloudDatabase());
        all.insert(all.end(), shared.begin(), shared.end());
        return all;
    });
}

void Backend::createRepository(const std::string& name,
                               Completion<std::shared_ptr<Repository>> done) {
    runAsync<std::shared_ptr<Repository>>(std::move(done), [=, this] {
        auto& database = container_.privateCloudDatabase();
        const std::string scope = scopeText(database);
        cloud::ZoneId zone = zoneOf(name, std::string(cloud::kCurrentUserDefaultName));
        trace(TraceModule::request, "creating " + scope + " zone " + zone.zoneName);
        database.saveRecordZone(zone);
        trace(TraceModule::response, "zone created");

        cloud::Record record(kRepositoryRecordType, {kRepositoryRecordName, zone});
        record.set("name", name);
        record.set("version", std::int64_t{2});
        cloud::Record share = cloud::makeShare(record, kShareRecordName);
        share.share->title = name;
        if (!shareThumbnail_.empty()) share.share->thumbnailImageData = shareThumbnail_;
        saveRecords(database, {record, share});
        // Read back what the store stamped (dates, change tags, the share's URL).
        return loadRepository(database, zone, name);
    });
}

void Backend::joinRepository(const std::string& shareURL, Completion<Done> done) {
    runAsync<Done>(std::move(done), [=, this] {
        container_.acceptShare(container_.fetchShareMetadata(shareURL, true));
        return Done{};
    });
}

void Backend::acceptShare(const cloud::ShareMetadata& metadata, Completion<Done> done) {
    runAsync<Done>(std::move(done), [=, this] {
        container_.acceptShare(metadata);
        return Done{};
    });
}

void Backend::deleteRepository(std::shared_ptr<Repository> repository, Completion<Done> done) {
    runAsync<Done>(std::move(done), [=, this] {
        auto& database = databaseFor(repository->owner());
        trace(TraceModule::request,
              "deleting " + scopeText(database) + " zone " + repository->id());
        database.deleteRecordZone({repository->id(), repository->owner()});
        trace(TraceModule::response, "zone deleted");
        return Done{};
    });
}

void Backend::addContributor(std::shared_ptr<Repository> repository, const std::string& email,
                             Completion<Done> done) {
    runAsync<Done>(std::move(done), [=, this] {
        if (!repository->record() || !repository->share() || !repository->share()->share) {
            throw Error("Failed to add contributor " + email);
        }
        auto participant = container_.fetchShareParticipant(email);
        if (!participant) throw Error("Invalid email: " + email);
        participant->permission = cloud::Permission::readWrite;
        changeShare(*repository, [&](cloud::Share& share) { share.addParticipant(*participant); });
        return Done{};
    });
}

void Backend::deleteContributor(std::shared_ptr<Repository> repository,
                                const Participant& participant, Completion<Done> done) {
    runAsync<Done>(std::move(done), [=, this] {
        if (!repository->record() || !repository->share() || !repository->share()->share ||
            !participant.shareParticipant) {
            throw Error("Failed to delete contributor");
        }
        changeShare(*repository, [&](cloud::Share& share) {
            share.removeParticipant(*participant.shareParticipant);
        });
        return Done{};
    });
}

void Backend::changeShare(const Repository& repository,
                          const std::function<void(cloud::Share&)>& change) {
    // The records as stored now: the ones in hand may name working files of a push that are
    // gone. A save that changed them meanwhile (another invitation, a push) is read again.
    auto& database = databaseFor(repository.owner());
    for (int attempt = 1;; ++attempt) {
        auto [record, share] = fetchRepositoryRecords(
            database, {repository.id(), repository.owner()}, repository.name());
        change(*share.share);
        try {
            saveRecords(database, {share, record});
            return;
        } catch (const CloudError& error) {
            if (!isRecordChanged(error) || attempt == kShareChangeAttempts) throw;
        }
    }
}

void Backend::readPackRecords(cloud::Database& database, const cloud::ZoneId& zone,
                              const std::vector<std::string>& packIds,
                              std::map<std::string, std::optional<cloud::Record>>& stored) {
    std::vector<cloud::RecordId> ids;
    for (const auto& packId : packIds)
        ids.push_back({packId, zone});
    for (auto& [id, result] : fetchRecords(database, ids)) {
        if (result.error && result.error->code() != cloud::kUnknownItem) throw *result.error;
        stored[id.recordName] = std::move(result.record);
    }
}

std::map<std::string, std::int64_t> Backend::savePacks(
    const std::vector<std::string>& ids, const Repository& repository,
    const RepositoryContent& content,
    const std::function<void(const std::vector<std::string>&)>& progress) {
    std::set<std::string> prefixes;
    for (const auto& id : ids)
        prefixes.insert(id.substr(0, 3));
    // Every record lists all objects of its prefix that the repository has.
    auto contents = packContents(content, prefixes);
    auto& database = databaseFor(repository.owner());
    cloud::ZoneId zone{repository.id(), repository.owner()};

    // Records the metadata knows are read first; the others are created, and one that another
    // push created meanwhile is refused, read and merged like any changed record.
    std::vector<std::string> packIds(prefixes.begin(), prefixes.end());
    std::vector<std::string> known;
    std::copy_if(packIds.begin(), packIds.end(), std::back_inserter(known),
                 [&](const std::string& packId) { return content.packs.contains(packId); });
    std::map<std::string, std::optional<cloud::Record>> stored;
    readPackRecords(database, zone, known, stored);

    trace(TraceModule::request,
          "saving " + std::to_string(packIds.size()) + " packs on " + repository.name());
    std::map<std::string, std::int64_t> sizes;
    for (const auto& group : groupsOf(packIds, kPackGroup))
        savePackGroup(database, repository, group, contents, stored, sizes, progress);
    return sizes;
}

std::map<std::string, std::int64_t> Backend::saveStoredPacks(
    const Repository& repository,
    const std::vector<std::shared_ptr<const CachedStoredPack>>& packs) {
    auto& database = databaseFor(repository.owner());
    cloud::ZoneId zone{repository.id(), repository.owner()};
    std::map<std::string, std::int64_t> sizes;
    for (const auto& pack : packs) {
        trace(TraceModule::request, "saving pack " + pack->name() + " of " + repository.name());
        // Named by their data: saving one again stores the same bytes.
        cloud::ModifyRecordsOperation operation;
        operation.recordsToSave = {storedPackRecord(*pack, zone)};
        operation.savePolicy = cloud::SavePolicy::allKeys;
        operation.atomic = true;
        database.modifyRecords(operation);
        sizes[pack->name()] = storedPackSize(*pack);
        trace(TraceModule::response, "saved pack " + pack->name());
    }
    return sizes;
}

void Backend::savePackGroup(cloud::Database& database, const Repository& repository,
                            const std::vector<std::string>& packIds,
                            const std::map<std::string, std::vector<std::string>>& contents,
                            std::map<std::string, std::optional<cloud::Record>>& stored,
                            std::map<std::string, std::int64_t>& sizes,
                            const std::function<void(const std::vector<std::string>&)>& progress) {
    cloud::ZoneId zone{repository.id(), repository.owner()};
    for (int attempt = 1;; ++attempt) {
        cloud::ModifyRecordsOperation operation;
        operation.savePolicy = cloud::SavePolicy::ifServerRecordUnchanged;
        operation.atomic = true;
        std::vector<std::vector<std::string>> alreadyStored;  // their progress, once saved
        for (const auto& packId : packIds) {
            auto update =
                mergePackRecord(packId, stored[packId], contents.at(packId), zone, store_);
            for (const auto& id : update.missing)
                trace(TraceModule::error, "Missing object " + id + " in pack " + packId);
            sizes[packId] = update.size;
            if (update.needsSave) {
                operation.recordsToSave.push_back(std::move(update.record));
            } else if (const auto* storedIds = update.record.get<std::vector<std::string>>("ids")) {
                alreadyStored.push_back(*storedIds);
            }
        }
        auto reportStored = [&] {
            for (const auto& storedIds : alreadyStored)
                progress(storedIds);
        };
        if (operation.recordsToSave.empty()) return reportStored();
        std::size_t saved = 0;
        operation.perRecordProgress = [&](const cloud::Record& record, double) {
            if (const auto* recordIds = record.get<std::vector<std::string>>("ids")) {
                progress(*recordIds);
            }
        };
        operation.perRecordCompletion = [&](const cloud::RecordId&, const cloud::Record* record,
                                            const CloudError*) {
            if (record) ++saved;
        };
        try {
            database.modifyRecords(operation);
            trace(TraceModule::response,
                  "saved " + std::to_string(saved) + " packs on " + repository.name());
            return reportStored();
        } catch (const cloud::PartialFailure& failure) {
            // An atomic save stops at its first refused record, so a refusal says little about
            // the rest of the group: the whole group is read again.
            bool changed =
                std::any_of(failure.partialErrors().begin(), failure.partialErrors().end(),
                            [](const auto& entry) {
                                return entry.second.code() == cloud::kServerRecordChanged;
                            });
            trace(TraceModule::error, failure.what());
            if (!changed) throw;
            if (attempt == kPackMergeAttempts) {
                throw Conflict("Packs of " + repository.name() + " keep changing under this push");
            }
        } catch (const std::exception& error) {
            trace(TraceModule::error, error.what());
            throw;
        }
        // Someone saved these records since they were read: take their objects in too.
        readPackRecords(database, zone, packIds, stored);
    }
}

std::unique_lock<std::mutex> Backend::lockPushes(const Repository& repository) {
    std::mutex* lock = nullptr;
    {
        std::lock_guard guard(pushLocksMutex_);
        auto& entry = pushLocks_[{repository.owner(), repository.id()}];
        if (!entry) entry = std::make_unique<std::mutex>();
        lock = entry.get();
    }
    return std::unique_lock(*lock);
}

std::vector<cloud::Record> Backend::emptiedPackRecords(const Repository& repository,
                                                       const std::vector<std::string>& names) {
    auto& database = databaseFor(repository.owner());
    cloud::ZoneId zone{repository.id(), repository.owner()};
    std::vector<cloud::RecordId> ids;
    for (const auto& name : names)
        ids.push_back({name, zone});
    std::vector<cloud::Record> emptied;
    for (auto& [id, result] : fetchRecords(database, ids)) {
        if (result.error && result.error->code() == cloud::kUnknownItem) continue;
        if (result.error) throw *result.error;
        if (!result.record) continue;
        cloud::Record record = emptiedPackRecord(id);
        record.recordChangeTag = result.record->recordChangeTag;
        emptied.push_back(std::move(record));
    }
    return emptied;
}

void Backend::saveRepository(const std::shared_ptr<Repository>& repository,
                             Repository::ContentUpdate& update,
                             const std::vector<cloud::Record>& alongside) {
    auto stored = repository->record();
    if (!stored) throw Error("Failed to save repository " + repository->name());
    // Working files are named per process as well: two daemons may share a cache.
    struct WorkingFiles {
        std::vector<std::filesystem::path> paths;
        ~WorkingFiles() {
            std::error_code ignored;
            for (const auto& path : paths)
                std::filesystem::remove(path, ignored);
        }
    } files;
    auto write = [&](const Bytes& document) {
        files.paths.push_back(store_.workingFile(repository->owner() + "." + repository->id() +
                                                 "." + std::to_string(files.paths.size()) + "." +
                                                 std::to_string(::getpid())));
        writeFileAtomically(files.paths.back(), document);
        return cloud::Asset{files.paths.back()};
    };
    auto plan = planMetaSave(*stored, *repository->content(), update.content(), write,
                             incrementalMetaThreshold_);

    cloud::Record record = *stored;
    auto setList = [&](const char* key, std::vector<cloud::Asset> assets) {
        if (assets.empty()) {
            record.remove(key);
        } else {
            record.set(key, std::move(assets));
        }
    };
    if (!plan.base.empty()) {
        record.set("meta", plan.base.front());
        setList("parts", {plan.base.begin() + 1, plan.base.end()});
    }
    auto increments = plan.keptIncrements;
    if (plan.increment) increments.push_back(*plan.increment);
    setList("increments", std::move(increments));
    record.set("version", std::int64_t{plan.version});

    trace(TraceModule::request, "saving repository " + repository->name());
    cloud::ModifyRecordsOperation operation;
    operation.recordsToSave = {record};
    operation.recordsToSave.insert(operation.recordsToSave.end(), alongside.begin(),
                                   alongside.end());
    operation.savePolicy = cloud::SavePolicy::ifServerRecordUnchanged;
    operation.atomic = true;
    auto& database = databaseFor(repository->owner());
    std::vector<cloud::Record> saved;
    try {
        saved = database.modifyRecords(operation);
    } catch (const CloudError& error) {
        trace(TraceModule::error, "error saving repository " + repository->name());
        if (isRecordChanged(error)) throw Conflict(error.what());
        throw;
    } catch (...) {
        trace(TraceModule::error, "error saving repository " + repository->name());
        throw;
    }
    trace(TraceModule::response, "saved repository " + repository->name());
    // Content first: a reader that sees the new change tag must find the content it stands for.
    update.publish();
    repository->setMetaSize(plan.size);
    if (!saved.empty()) {
        // The next push reads back this save's increments: as fetched, they are files of the
        // asset cache, not the working files about to go. A failed read only costs that push a
        // new base.
        if (plan.version >= 3) {
            try {
                auto again = fetchRecords(database, {saved.front().recordId});
                auto& fetched = again[saved.front().recordId].record;
                if (fetched && fetched->recordChangeTag == saved.front().recordChangeTag)
                    saved.front() = std::move(*fetched);
            } catch (const std::exception& error) {
                trace(TraceModule::error, error.what());
            }
        }
        repository->setRecord(std::move(saved.front()));
    }
    if (callbacks_.updateRepository) {
        mainQueue_.async([this, repository] { callbacks_.updateRepository(repository); });
    }
}

std::map<std::string, PackResult> Backend::fetchPacks(const std::string& name,
                                                      const std::string& owner,
                                                      const std::set<std::string>& packIds) {
    std::map<std::string, PackResult> results;
    if (packIds.empty()) return results;
    auto& database = databaseFor(owner);
    cloud::ZoneId zone = zoneOf(name, owner);
    trace(TraceModule::request,
          "fetching " + std::to_string(packIds.size()) + " packs from " + name);
    std::vector<cloud::RecordId> ids;
    for (const auto& packId : packIds)
        ids.push_back({packId, zone});
    std::size_t received = 0;
    for (auto& [id, result] : fetchRecords(database, ids)) {
        PackResult& pack = results[id.recordName];
        try {
            if (result.error) throw *result.error;
            if (!result.record) throw Error("Missing pack " + id.recordName);
            ++received;
            pack.placed = decodePackRecord(*result.record, store_);
        } catch (const std::exception& error) {
            trace(TraceModule::error, "failed to fetch pack " + id.recordName);
            pack.error = error.what();
        }
    }
    trace(TraceModule::response, "fetched " + std::to_string(received) + " packs from " + name);
    return results;
}

}  // namespace corvane
