// Store: the local object cache, shared by all repositories and by every process of the user.
// Objects of stored packs (pack records of version 3) live in those packs under root/stored
// (stored_pack_cache.h), deltas and all. Other objects have a cache file, a zlib-compressed git
// loose object: one per object under root/<first 3 id characters>/<id>, or many in a cache pack
// under root/packs (cache_pack.h; pushes wrote these before they were kept as stored packs).
// Files and packs unused for a week expire. Nothing is held in memory but the packs' indexes: a
// long history's parsed objects would grow without bound, and the repository summaries answer
// what the daemon asks.
//
// Thread safety: every operation may run on any thread. Object files are written atomically
// (temporary file, then rename), so a reader sees no file or a whole one; a pack is found by
// other processes once its index is written. The "cache_expiry" thread is owned by the Store and
// stopped by its destructor.
//
// Last use: Linux file systems often do not record access times (noatime, relatime), so the
// cache records use itself: every read and write sets the file's modification time to now (a
// pack's at most hourly), and the sweep judges a file by its modification time alone.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "objects/object.h"
#include "storage/cache_pack.h"
#include "storage/stored_pack_cache.h"

namespace corvane {

// An object that a delta of a stored pack needs and the cache does not hold: once it is fetched,
// the read succeeds (ObjectFetcher::readObject does that).
class MissingBase : public NotFound {
  public:
    explicit MissingBase(std::string id) : NotFound("Missing object " + id), id_(std::move(id)) {}
    const std::string& id() const { return id_; }

  private:
    std::string id_;
};

class Store {
  public:
    using Clock = std::chrono::system_clock;

    struct Timing {
        std::chrono::seconds firstSweep{60};
        std::chrono::seconds sweepPeriod{3600};
        std::chrono::seconds cacheExpirationInterval{604800};  // 7 days
        bool runExpiryThread = true;
    };

    // $XDG_CACHE_HOME/corvane/Objects, or ~/.cache/corvane/Objects.
    static std::filesystem::path defaultRoot();

    explicit Store(std::filesystem::path root);
    Store(std::filesystem::path root, Timing timing);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Where an object's cache file lies: a whole loose file, or a range of a cache pack.
    struct CacheFileLocation {
        std::filesystem::path file;
        std::uint64_t offset = 0;
        std::uint64_t size = 0;
        bool wholeFile = true;
    };

    const std::filesystem::path& root() const { return root_; }

    // Writes the object file; fails on file-system and compression errors.
    void putObject(const Object& object);

    // Packed writes, for batches of many objects: a pack to put them in, readable through the
    // store from the moment each is put; committed, it stays for every reader; abandoned, its
    // objects are gone. An object the cache holds already is not written again.
    std::shared_ptr<CachePackWriter> beginPack();
    void putObject(const Object& object, CachePackWriter& pack);
    void commitPack(const std::shared_ptr<CachePackWriter>& pack);
    void abandonPack(const std::shared_ptr<CachePackWriter>& pack);

    // The stored packs the cache holds.
    StoredPackCache& storedPacks() { return storedPacks_; }

    // Reads, verifies and parses an object file. A file whose contents do not hash to the id is
    // deleted ("Corrupted cache file for object <id>"); a bad header gives
    // "Failed to decode object <id>"; a missing file gives the system's error text.
    Object getObject(const std::string& id);
    // The same; when the file holds the data's own compressed blocks (files this cache wrote
    // do), dataStream receives the zlib stream of the data, ready for a pack entry.
    Object getObject(const std::string& id, std::optional<Bytes>* dataStream);
    bool hasObject(const std::string& id) const;
    // Null when the cache does not hold the object as a cache file (a damaged pack entry counts
    // as absent, and an object of a stored pack has no cache file).
    std::optional<CacheFileLocation> locate(const std::string& id) const;
    // Links or copies a downloaded object file into place, keeping a sound file already there
    // and replacing a damaged one. The download itself is verified when first read (getObject
    // removes it if it is not the object its id names).
    void placeObjectFile(const std::string& id, const std::filesystem::path& file);
    // A path in the working folder root/zzz, for the caller to write and remove.
    std::filesystem::path workingFile(const std::string& name) const;
    // A path there that no other call, here or in another process, hands out.
    std::filesystem::path uniqueWorkingFile(const std::string& prefix) const;
    // The loose file's path.
    std::filesystem::path objectPath(const std::string& id) const;

    // Deletes files and packs not used since now - cacheExpirationInterval, and packs left
    // unfinished for a day. Returns how many files were deleted.
    std::size_t expire(Clock::time_point now);

  private:
    struct PackedEntry {
        std::shared_ptr<const CachePackIndex> sealed;  // or
        std::shared_ptr<CachePackWriter> open;
        CachePackEntry entry;
    };

    std::optional<PackedEntry> findPacked(const std::string& id) const;
    std::optional<PackedEntry> searchPacks(const Digest& id) const;  // with packsMutex_ held
    // Takes in the packs other processes sealed since the last look; false if there were none.
    bool loadNewPacks() const;
    std::size_t expirePacks(Clock::time_point limit);
    void expiryLoop();

    std::filesystem::path root_;
    std::filesystem::path packsFolder_;
    StoredPackCache storedPacks_;
    Timing timing_;

    // What is known of the packs, read from the folder as it changes.
    mutable std::shared_mutex packsMutex_;
    mutable std::vector<std::shared_ptr<const CachePackIndex>> sealedPacks_;  // newest last
    mutable std::vector<std::shared_ptr<CachePackWriter>> openPacks_;
    mutable std::set<Digest> damaged_;  // pack entries that failed their check
    mutable std::filesystem::file_time_type packsFolderTime_;  // at the last look
    mutable std::filesystem::file_time_type packsScanTime_;

    std::mutex mutex_;
    std::condition_variable stopRequested_;
    bool stopping_ = false;  // guarded by mutex_
    std::thread expiryThread_;
};

}  // namespace corvane
