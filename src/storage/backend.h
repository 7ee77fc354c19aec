// Backend: the one gateway to the cloud record store. Lists, fetches, creates, joins and deletes
// repositories, manages contributors, stores pushes (packs, then the metadata record) and
// downloads packs for the object fetcher.
//
// Threads: the asynchronous operations run on the "backend" work queue and complete on the
// main queue. fetchRepository, savePacks and saveRepository are synchronous for the server's
// connection threads; fetchPacks runs on the fetcher thread. The container serialises its own
// calls; the backend's own state is the fetcher and the queue, both owned and stopped by its
// destructor, the repositories kept for the daemon under one mutex and the table of push locks
// under another.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/queues.h"
#include "base/result.h"
#include "cloud/container.h"
#include "storage/object_fetcher.h"
#include "storage/repository.h"
#include "storage/repository_listing.h"
#include "storage/store.h"

namespace corvane {

class PackConsolidator;

class Backend {
  public:
    // How the backend reaches the application state (always called on the main queue).
    struct Callbacks {
        std::function<void(std::shared_ptr<Repository>)> updateRepository;
        std::function<void(const std::set<std::string>& ids)> objectsLoaded;
    };

    static constexpr std::size_t kFetchGroup = 100;  // record ids per fetch
    static constexpr std::size_t kSaveGroup = 80;    // records per generic save
    // Pack records per upload. Every transaction rewrites the pages of the store's content
    // indexes it touches, and random hashes touch most of them: fewer, larger transactions
    // (200: curl's 4,096 records saved in 15 s instead of 22 at 100) cost memory.
    static constexpr std::size_t kPackGroup = 200;
    // Times a group of pack records is read again and merged after another save changed it.
    static constexpr int kPackMergeAttempts = 20;
    // Times a change of the share (an invitation, a removal) is applied again to what another
    // save stored meanwhile.
    static constexpr int kShareChangeAttempts = 10;
    // Decoded repositories kept for the daemon, the most recently served first.
    static constexpr std::size_t kServedRepositories = 4;

    Backend(cloud::Container& container, Store& store, MainQueue& mainQueue, Callbacks callbacks);
    ~Backend();
    Backend(const Backend&) = delete;
    Backend& operator=(const Backend&) = delete;

    // The private database's repositories, then the shared database's.
    void fetchRepositories(Completion<std::vector<std::shared_ptr<Repository>>> done);
    void fetchRepository(const std::string& name, const std::string& owner,
                         Completion<std::shared_ptr<Repository>> done);
    void createRepository(const std::string& name, Completion<std::shared_ptr<Repository>> done);
    void joinRepository(const std::string& shareURL, Completion<Done> done);
    void acceptShare(const cloud::ShareMetadata& metadata, Completion<Done> done);
    void deleteRepository(std::shared_ptr<Repository> repository, Completion<Done> done);
    void addContributor(std::shared_ptr<Repository> repository, const std::string& email,
                        Completion<Done> done);
    void deleteContributor(std::shared_ptr<Repository> repository, const Participant& participant,
                           Completion<Done> done);

    // The repository a git client asked for; fails with NotFound
    // "<scope> repository <name> does not exist". The repositories served lately are kept and
    // handed out again while their stored records keep their change tags, so a request on an
    // unchanged repository reads two records and no metadata.
    std::shared_ptr<Repository> fetchRepository(const std::string& name, const std::string& owner);

    // Adds the objects of `ids` to the pack records of their prefixes, with every other object
    // of those prefixes that `content` lists and the store lacks. A record is only ever added
    // to: one that changed since it was read is read again and merged, so concurrent pushes,
    // here or elsewhere, never drop each other's objects. progress receives the ids of each
    // saved record. Returns pack id → new size.
    std::map<std::string, std::int64_t> savePacks(
        const std::vector<std::string>& ids, const Repository& repository,
        const RepositoryContent& content,
        const std::function<void(const std::vector<std::string>& savedIds)>& progress);

    // Saves stored packs, already in the cache, as pack records of version 3 (one at a time: each
    // is up to kStoredPackLimit bytes); returns each pack's name and size for the metadata.
    std::map<std::string, std::int64_t> saveStoredPacks(
        const Repository& repository,
        const std::vector<std::shared_ptr<const CachedStoredPack>>& packs);

    // Saves the repository record with the metadata of the update's content, and `alongside`
    // in the same transaction; on success publishes the update, sets metaSize and tells the
    // application state. Fails with Conflict when any of them changed since it was read.
    void saveRepository(const std::shared_ptr<Repository>& repository,
                        Repository::ContentUpdate& update,
                        const std::vector<cloud::Record>& alongside = {});

    // The pack records of `names` emptied of their data and index, over the change tags they are
    // stored with: saved with the metadata that forgets them, their contents are freed, and a
    // push that saves one of them again meanwhile makes that save a conflict. A record that is
    // not there is left out.
    std::vector<cloud::Record> emptiedPackRecords(const Repository& repository,
                                                  const std::vector<std::string>& names);

    // The picture every new repository's share carries (none: only its title).
    void setShareThumbnail(Bytes image) { shareThumbnail_ = std::move(image); }

    // Metadata documents of this compressed size or more are saved as a base and increments.
    // Tests lower it to reach that layout with small histories.
    void setIncrementalMetaThreshold(std::size_t bytes) { incrementalMetaThreshold_ = bytes; }

    // Serialises the pushes to one repository within this process, from the upload of their
    // objects to the save of their references.
    std::unique_lock<std::mutex> lockPushes(const Repository& repository);

    // Downloads pack records and places their objects in the cache.
    std::map<std::string, PackResult> fetchPacks(const std::string& name, const std::string& owner,
                                                 const std::set<std::string>& packIds);

    ObjectFetcher& fetcher() { return *fetcher_; }
    Store& store() { return store_; }
    PackConsolidator& consolidator() { return *consolidator_; }

  private:
    template <typename T, typename Work>
    void runAsync(Completion<T> done, Work work);
    // Changes the repository's share as now stored and saves it with the repository record.
    void changeShare(const Repository& repository,
                     const std::function<void(cloud::Share&)>& change);
    // The private database for the current user's repositories, else the shared one.
    cloud::Database& databaseFor(const std::string& owner);
    std::map<cloud::RecordId, cloud::FetchResult> fetchRecords(
        cloud::Database& database, const std::vector<cloud::RecordId>& ids);
    // The generic save: groups of kSaveGroup, only over unchanged records, all or nothing.
    void saveRecords(cloud::Database& database, const std::vector<cloud::Record>& records);
    // The repository and share records; NotFound when either is missing.
    std::pair<cloud::Record, cloud::Record> fetchRepositoryRecords(cloud::Database& database,
                                                                   const cloud::ZoneId& zone,
                                                                   const std::string& name);
    std::shared_ptr<Repository> loadRepository(cloud::Database& database, const cloud::ZoneId& zone,
                                               const std::string& name);
    // The served repository of that zone, if one is kept; keeps `repository` as the latest.
    std::shared_ptr<Repository> servedRepository(const cloud::ZoneId& zone);
    void keepServed(const std::shared_ptr<Repository>& repository);
    void forgetServed(const cloud::ZoneId& zone);
    void forgetServedLocked(const cloud::ZoneId& zone);  // servedMutex_ held
    // The stored pack records among `packIds`; an absent one maps to nothing.
    void readPackRecords(cloud::Database& database, const cloud::ZoneId& zone,
                         const std::vector<std::string>& packIds,
                         std::map<std::string, std::optional<cloud::Record>>& stored);
    // Saves one group of pack records, merging again with what others saved meanwhile.
    void savePackGroup(cloud::Database& database, const Repository& repository,
                       const std::vector<std::string>& packIds,
                       const std::map<std::string, std::vector<std::string>>& contents,
                       std::map<std::string, std::optional<cloud::Record>>& stored,
                       std::map<std::string, std::int64_t>& sizes,
                       const std::function<void(const std::vector<std::string>&)>& progress);

    cloud::Container& container_;
    Store& store_;
    MainQueue& mainQueue_;
    Callbacks callbacks_;
    std::unique_ptr<ObjectFetcher> fetcher_;
    std::unique_ptr<WorkQueue> queue_;
    std::size_t incrementalMetaThreshold_;
    Bytes shareThumbnail_;

    RepositoryListing listing_;

    std::mutex servedMutex_;
    std::list<std::shared_ptr<Repository>> served_;  // guarded by servedMutex_

    std::mutex pushLocksMutex_;
    // One per repository (owner, id) pushed to; few enough to keep for the process's life.
    std::map<std::pair<std::string, std::string>, std::unique_ptr<std::mutex>>
        pushLocks_;  // guarded by pushLocksMutex_

    // Last: it stops before anything it uses goes.
    std::unique_ptr<PackConsolidator> consolidator_;
};

}  // namespace corvane
