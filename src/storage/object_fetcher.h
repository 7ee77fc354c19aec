// ObjectFetcher: brings object contents into the local cache on demand. Requests queue in
// pendingRequests (newest first); one "object_fetcher" thread serves them a repository at a
// time, answering from the cache where it can and otherwise downloading the packs that hold the
// missing objects, at most 100 packs per pass. A repository's stored packs (pack records of
// version 3) are downloaded whole before its objects are looked for, by the caller's thread.
//
// Threads: enqueueing is safe from any thread. Completions run on the fetcher thread. The
// thread is owned by the fetcher and stopped by its destructor; requests still queued then are
// completed with "Object fetcher stopped" so no waiter hangs.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/sync.h"
#include "storage/store.h"

namespace corvane {

class Repository;

// One wanted object. A request without callback is a prefetch.
struct FetchRequest {
    std::string id;
    std::string repository;  // name
    std::string owner;
    std::function<void(const std::optional<std::string>& error)> callback;
};

// What downloading one pack gave: the ids it placed in the cache, or why it failed.
struct PackResult {
    std::set<std::string> placed;
    std::optional<std::string> error;
};

class ObjectFetcher {
  public:
    static constexpr std::size_t kMaxPacksPerPass = 100;

    // Downloads the named packs of a repository (name, owner); a pack id absent from the
    // result was not received. Throwing fails every request of the batch with the message.
    using PackDownload = std::function<std::map<std::string, PackResult>(
        const std::string& name, const std::string& owner, const std::set<std::string>& packIds)>;
    // Told, on the fetcher thread, of ids that are now in the cache.
    using ObjectsLoaded = std::function<void(const std::set<std::string>& ids)>;

    ObjectFetcher(Store& store, PackDownload download, ObjectsLoaded objectsLoaded);
    ~ObjectFetcher();
    ObjectFetcher(const ObjectFetcher&) = delete;
    ObjectFetcher& operator=(const ObjectFetcher&) = delete;

    // Queues requests without callbacks and returns.
    void prefetchObjects(const std::vector<std::string>& ids, const Repository& repository);
    // Blocks until every object is cached; throws the first error reported at once.
    void fetchObjects(const std::vector<std::string>& ids, const Repository& repository);
    // Blocks until every request has completed, passing each completion on; never throws.
    void fetchObjects(const std::vector<std::string>& ids, const Repository& repository,
                      const std::function<void(const std::string& id,
                                               const std::optional<std::string>& error)>& each);

    // The object from the cache, downloaded first when it is not there, and downloaded again
    // when its cached file turns out damaged (the read removes such a file). dataStream as in
    // Store::getObject. Throws the download's or the read's error.
    Object readObject(const std::string& id, const Repository& repository,
                      std::optional<Bytes>* dataStream = nullptr);

    Store& store() { return store_; }

    // For tests: the requests waiting, front first.
    SyncArray<FetchRequest>& pendingRequests() { return pendingRequests_; }
    // For tests: holds the thread before its next pass until resumed.
    void pause();
    void resume();

    // Downloads the repository's stored packs that the cache lacks: an object of a stored pack
    // is found only through its pack's index. Every fetch does it first; a pack writer that
    // copies stored entries does it before it looks. Drops the repository's retired packs from
    // the cache. Throws the download's error.
    void fetchStoredPacks(const Repository& repository);

  private:
    Object readCached(const std::string& id, const Repository& repository,
                      std::optional<Bytes>* dataStream);
    void enqueue(std::vector<FetchRequest> requests);
    void run();
    void servePass();
    void download(const std::string& name, const std::string& owner,
                  std::vector<FetchRequest> batch, const std::set<std::string>& packIds);

    Store& store_;
    PackDownload download_;
    ObjectsLoaded objectsLoaded_;
    SyncArray<FetchRequest> pendingRequests_;

    std::mutex storedPacksMutex_;  // one download of stored packs at a time
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;  // guarded by mutex_
    bool paused_ = false;    // guarded by mutex_
    std::thread thread_;
};

}  // namespace corvane
