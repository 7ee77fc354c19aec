// ObjectWriter: writes objects into the Store on worker threads while its owner goes on reading,
// so that compressing a pushed pack uses every core. An object stays reachable through find()
// until its file is written, so a delta whose base came earlier in the same pack finds it.
// Memory stays bounded: put() waits while the objects not yet written exceed the limit. Packed,
// the objects go into one cache pack, kept by finish() and dropped if the writer goes without it.
//
// Threads: put, find and finish belong to the owning thread; the workers are internal and
// joined by finish() or the destructor. Fields below mutex_ are guarded by it.
#pragma once

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/queues.h"
#include "objects/object.h"
#include "storage/store.h"

namespace corvane {

class ObjectWriter {
  public:
    enum class Layout { looseFiles, packed };

    ObjectWriter(Store& store, unsigned threads, std::size_t maxPendingBytes,
                 Layout layout = Layout::looseFiles);
    ~ObjectWriter();
    ObjectWriter(const ObjectWriter&) = delete;
    ObjectWriter& operator=(const ObjectWriter&) = delete;

    // Queues the object for Store::putObject. Throws the first failure of an earlier write.
    void put(std::shared_ptr<const Object> object);
    // An object queued but not yet written, or null.
    std::shared_ptr<const Object> find(const std::string& id) const;
    // Waits until every queued object is written; throws the first failure.
    void finish();

  private:
    void write(const std::shared_ptr<const Object>& object);
    void throwIfFailed();  // with mutex_ held

    Store& store_;
    const std::size_t maxPendingBytes_;
    std::shared_ptr<CachePackWriter> pack_;  // packed only; null once finished

    mutable std::mutex mutex_;
    std::condition_variable written_;
    std::unordered_map<std::string, std::shared_ptr<const Object>> pending_;
    std::size_t pendingBytes_ = 0;
    std::exception_ptr failure_;

    std::optional<WorkQueue> workers_;  // last: stopped before the state it uses
};

}  // namespace corvane
