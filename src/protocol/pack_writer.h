// PackWriter: writes one pack (version 2) to a connection while objects arrive in any order:
// workers compress objects in parallel, and one lock keeps every entry whole on the wire.
// Layout: "PACK" | version 2 | object count (both 4 bytes, big-endian) | entries | SHA-1 trailer.
// An entry is the type-and-size header, then the zlib stream of the object's whole contents; or,
// for an object of a stored pack whose base the pack already holds, the stored delta as it is,
// pointing back at the base (ofs-delta) or naming it (ref-delta), as the client asked.
// Thread safety: add() from any thread; begin(), addStored(), holds() and finish() from the
// owning thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "base/queues.h"
#include "objects/object.h"
#include "protocol/git_socket.h"
#include "storage/stored_pack_cache.h"

namespace corvane {

class PackWriter {
  public:
    // Reads an object that add() was given, with the zlib stream of its data where the cache
    // has one (see Store::getObject). Called on the workers.
    using ObjectReader = std::function<Object(const std::string& id, std::optional<Bytes>* stream)>;

    // What the client takes: deltas that point back at their base (ofs-delta), and deltas on
    // bases it holds already and is not sent (a thin pack): those of `clientHas`.
    struct DeltaRules {
        bool ofsDeltas = false;
        std::unordered_set<Digest, DigestHash> clientHas;
    };
    PackWriter(GitSocket& socket, ObjectReader read, unsigned workers, DeltaRules rules);

    // The pack header; fails before anything is sent when the count exceeds 32 bits.
    void begin(std::size_t objectCount);
    // Queues the object to be read, compressed and written.
    void add(const std::string& id);
    // Copies a stored pack's entry as it is stored: a whole object as it is, a delta whose base
    // this pack holds already re-pointed at it. Any other, and one whose bytes fail their check,
    // is read and compressed whole as add() does.
    void addStored(const std::string& id, const CachedStoredPack& pack,
                   const StoredPackEntry& entry);
    // Whether the object is written already.
    bool holds(const Digest& id);
    // Waits until fewer than `limit` objects are queued, so that a long list is handed over as
    // the wire takes it rather than held in memory all at once.
    void waitForRoom(std::size_t limit);
    // Reports a failure: sent on band 3 when the client has a side-band, then the connection
    // stops sending. Later objects are ignored.
    void fail(const std::string& message);
    // Waits for the queued objects, then writes the trailer and drains the side-band buffer.
    void finish();

  private:
    void write(const std::string& id);
    // Sends one entry and notes where it starts; writeMutex_ held.
    void emit(const Digest& id, ByteView header, ByteView rest);

    GitSocket& socket_;
    ObjectReader read_;
    const DeltaRules rules_;
    std::mutex writeMutex_;  // one entry at a time on the wire; guards what follows
    bool failed_ = false;
    std::uint64_t offset_ = 12;  // of the next entry, from the pack's start
    std::unordered_map<Digest, std::uint64_t, DigestHash> written_;  // entry offsets
    std::mutex queueMutex_;
    std::condition_variable dequeued_;
    std::size_t queued_ = 0;  // guarded by queueMutex_
    std::optional<WorkQueue> workers_;
};

}  // namespace corvane
