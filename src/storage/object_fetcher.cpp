#include "storage/object_fetcher.h"

#include "base/error.h"
#include "base/queues.h"
#include "base/trace.h"
#include "storage/repository.h"
#include "storage/stored_pack.h"

namespace corvane {

namespace {

void complete(const FetchRequest& request, const std::optional<std::string>& error) {
    if (request.callback) request.callback(error);
}

std::string packIdOf(const std::string& id) {
    return id.substr(0, 3);
}

}  // namespace

ObjectFetcher::ObjectFetcher(Store& store, PackDownload download, ObjectsLoaded objectsLoaded)
    : store_(store), download_(std::move(download)), objectsLoaded_(std::move(objectsLoaded)) {
    thread_ = std::thread([this] { run(); });
}

ObjectFetcher::~ObjectFetcher() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    for (auto& request : pendingRequests_.takeWhere([](const FetchRequest&) { return true; })) {
        complete(request, "Object fetcher stopped");
    }
}

void ObjectFetcher::pause() {
    std::lock_guard lock(mutex_);
    paused_ = true;
}

void ObjectFetcher::resume() {
    {
        std::lock_guard lock(mutex_);
        paused_ = false;
    }
    wake_.notify_all();
}

void ObjectFetcher::enqueue(std::vector<FetchRequest> requests) {
    pendingRequests_.prepend(requests);
    wake_.notify_all();
}

void ObjectFetcher::fetchStoredPacks(const Repository& repository) {
    // A retired pack's objects are in the pack that replaced it; a copy left in the cache would
    // be found first and kept alive by the use.
    auto content = repository.content();
    for (const auto& [name, time] : content->retiredPacks) {
        // A converted repository retires thousands of packs of version 1 or 2, never cached here.
        if (isStoredPackName(name) && store_.storedPacks().pack(name))
            store_.storedPacks().discard(name);
    }
    auto missing = [&] {
        std::set<std::string> names;
        for (const auto& [name, size] : content->packs) {
            if (isStoredPackName(name) && !store_.storedPacks().pack(name)) names.insert(name);
        }
        return names;
    };
    if (missing().empty()) return;
    std::lock_guard lock(storedPacksMutex_);
    auto names = missing();  // another thread may have fetched them meanwhile
    if (names.empty()) return;
    trace(TraceModule::request,
          "fetching " + std::to_string(names.size()) + " stored packs of " + repository.name());
    auto results = download_(repository.name(), repository.owner(), names);
    std::set<std::string> placed;
    for (const auto& name : names) {
        auto result = results.find(name);
        if (result == results.end()) throw Error("Missing pack " + name);
        if (result->second.error) throw Error(*result->second.error);
        placed.insert(result->second.placed.begin(), result->second.placed.end());
    }
    if (!placed.empty()) objectsLoaded_(placed);
}

void ObjectFetcher::prefetchObjects(const std::vector<std::string>& ids,
                                    const Repository& repository) {
    try {
        fetchStoredPacks(repository);
    } catch (const std::exception& failure) {
        trace(TraceModule::error, failure.what());  // the requests fail on their own below
    }
    std::vector<FetchRequest> requests;
    for (const auto& id : ids)
        requests.push_back({id, repository.name(), repository.owner(), {}});
    enqueue(std::move(requests));
}

void ObjectFetcher::fetchObjects(const std::vector<std::string>& ids,
                                 const Repository& repository) {
    fetchStoredPacks(repository);
    // Shared with the callbacks, which may run after this call has thrown.
    struct Wait {
        std::mutex mutex;
        std::condition_variable changed;
        std::size_t remaining = 0;
        std::optional<std::string> error;
    };
    auto wait = std::make_shared<Wait>();
    wait->remaining = ids.size();
    std::vector<FetchRequest> requests;
    for (const auto& id : ids) {
        requests.push_back({id, repository.name(), repository.owner(),
                            [wait](const std::optional<std::string>& error) {
                                std::lock_guard lock(wait->mutex);
                                --wait->remaining;
                                if (error && !wait->error) wait->error = error;
                                wait->changed.notify_all();
                            }});
    }
    enqueue(std::move(requests));
    std::unique_lock lock(wait->mutex);
    wait->changed.wait(lock, [&] { return wait->remaining == 0 || wait->error; });
    if (wait->error) throw Error(*wait->error);
}

void ObjectFetcher::fetchObjects(
    const std::vector<std::string>& ids, const Repository& repository,
    const std::function<void(const std::string&, const std::optional<std::string>&)>& each) {
    try {
        fetchStoredPacks(repository);
    } catch (const std::exception& failure) {
        for (const auto& id : ids)
            each(id, std::string(failure.what()));
        return;
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t remaining = ids.size();
    std::vector<FetchRequest> requests;
    for (const auto& id : ids) {
        requests.push_back({id, repository.name(), repository.owner(),
                            [&, id](const std::optional<std::string>& error) {
                                each(id, error);
                                std::lock_guard lock(mutex);
                                --remaining;
                                changed.notify_all();
                            }});
    }
    enqueue(std::move(requests));
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return remaining == 0; });
}

Object ObjectFetcher::readObject(const std::string& id, const Repository& repository,
                                 std::optional<Bytes>* dataStream) {
    // Called for every object a pack writer compresses: the look at the repository's packs is
    // only for one the cache lacks.
    if (!store_.hasObject(id)) fetchStoredPacks(repository);
    // A delta of a stored pack may lean on an object of another pack the cache lacks.
    for (int fetched = 0;; ++fetched) {
        try {
            return readCached(id, repository, dataStream);
        } catch (const MissingBase& missing) {
            if (fetched == kMaxDeltaDepth) throw;
            fetchObjects({missing.id()}, repository);
        }
    }
}

Object ObjectFetcher::readCached(const std::string& id, const Repository& repository,
                                 std::optional<Bytes>* dataStream) {
    if (store_.hasObject(id)) {
        try {
            return store_.getObject(id, dataStream);
        } catch (const Error&) {
            if (store_.hasObject(id)) throw;  // kept: the file is sound, the object odd
        }
    }
    fetchObjects({id}, repository);
    return store_.getObject(id, dataStream);
}

void ObjectFetcher::run() {
    setThreadName("object_fetcher");
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock,
                       [&] { return stopping_ || (!paused_ && pendingRequests_.count() > 0); });
            if (stopping_) return;
        }
        servePass();
    }
}

void ObjectFetcher::servePass() {
    auto leader = pendingRequests_.element(0);
    if (!leader) return;
    // Everything queued for the leader's repository, newest first.
    auto mine = pendingRequests_.takeWhere([&](const FetchRequest& request) {
        return request.repository == leader->repository && request.owner == leader->owner;
    });

    std::vector<FetchRequest> batch;
    std::set<std::string> packIds;
    std::set<std::string> cached;
    std::vector<FetchRequest> hits;
    std::size_t next = 0;
    for (; next < mine.size(); ++next) {
        if (packIds.size() >= kMaxPacksPerPass && !packIds.contains(packIdOf(mine[next].id))) {
            break;
        }
        FetchRequest& request = mine[next];
        // A whole file is enough here: whoever reads it verifies the hash and, should the file
        // be corrupt, the read deletes it and a later request downloads it again.
        if (store_.hasObject(request.id)) {
            cached.insert(request.id);
            hits.push_back(std::move(request));
        } else {
            packIds.insert(packIdOf(request.id));
            batch.push_back(std::move(request));
        }
    }
    // The application hears of the objects before their requesters go on.
    if (!cached.empty()) objectsLoaded_(cached);
    for (const auto& request : hits)
        complete(request, std::nullopt);
    // Requests beyond this pass's packs wait for the next one, still ahead of the others.
    if (next < mine.size()) {
        pendingRequests_.prepend(std::vector<FetchRequest>(
            std::make_move_iterator(mine.begin() + static_cast<std::ptrdiff_t>(next)),
            std::make_move_iterator(mine.end())));
    }
    if (!batch.empty()) download(leader->repository, leader->owner, std::move(batch), packIds);
}

void ObjectFetcher::download(const std::string& name, const std::string& owner,
                             std::vector<FetchRequest> batch,
                             const std::set<std::string>& packIds) {
    std::map<std::string, PackResult> results;
    try {
        results = download_(name, owner, packIds);
    } catch (const std::exception& error) {
        trace(TraceModule::error, "failed to fetch pack");
        for (const auto& request : batch)
            complete(request, std::string(error.what()));
        return;
    }
    for (const auto& [packId, result] : results) {
        std::vector<FetchRequest> rest;
        std::vector<FetchRequest> done;
        std::set<std::string> loaded;
        for (auto& request : batch) {
            bool inPack = request.id.starts_with(packId);
            if (inPack && result.error) {
                complete(request, result.error);
            } else if (inPack && result.placed.contains(request.id)) {
                loaded.insert(request.id);
                done.push_back(std::move(request));
            } else {
                rest.push_back(std::move(request));
            }
        }
        batch = std::move(rest);
        if (!loaded.empty()) objectsLoaded_(loaded);
        for (const auto& request : done)
            complete(request, std::nullopt);
    }
    for (const auto& request : batch)
        complete(request, "Missing object " + request.id);
}

}  // namespace corvane
