// StoredPackCache: stored packs (stored_pack.md) kept in the object cache as the store keeps
// them, so that a cache filled from the store holds no more than the store's packs:
// FOLDER/NAME.data beside FOLDER/NAME.idx. An index is read once and kept; the data is read an
// entry at a time, each checked against its CRC-32 (not mapped: a file damaged under a mapping
// would end the process). A pack without its index is one still being placed, or abandoned; the
// index is written last. A pack found damaged when read is dropped, to be downloaded again.
//
// Thread safety: every operation may run on any thread; other processes' packs are found once
// their index is there. A pack found stays readable by whoever holds it, even once expired.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>

#include "storage/stored_pack.h"

namespace corvane {

// One stored pack in the cache: its name, its index, and its data file held open.
class CachedStoredPack {
  public:
    // Opens NAME.data and reads NAME.idx; throws when either is missing or damaged, or when the
    // data is not the size the index says.
    CachedStoredPack(const std::filesystem::path& folder, const std::string& name);
    ~CachedStoredPack();
    CachedStoredPack(const CachedStoredPack&) = delete;
    CachedStoredPack& operator=(const CachedStoredPack&) = delete;

    const std::string& name() const { return name_; }
    const StoredPackIndex& index() const { return index_; }
    // An entry's bytes; CorruptedPack when the file no longer holds them.
    Bytes readEntry(const StoredPackEntry& entry) const;
    const std::filesystem::path& dataPath() const { return dataPath_; }
    std::filesystem::path indexPath() const;
    // Records a use in the data file's modification time, at most once an hour.
    void noteUse() const;

  private:
    std::string name_;
    std::filesystem::path dataPath_;
    StoredPackIndex index_;
    int fd_ = -1;
    mutable std::atomic<std::int64_t> lastUse_{0};
};

class StoredPackCache {
  public:
    // The folder is made when the first pack is placed.
    explicit StoredPackCache(std::filesystem::path folder);

    // Writes the pack (data first, index last); a pack already here is kept. Fails on
    // file-system errors and on an index that does not describe the data.
    std::shared_ptr<const CachedStoredPack> place(const std::string& name, ByteView data,
                                                  const Bytes& index);
    // Places what a builder made: its data file moved in (it must lie on the cache's file
    // system), or its data written.
    std::shared_ptr<const CachedStoredPack> place(StoredPackBuilder::Built built);
    // The pack of that name, if the cache holds it whole.
    std::shared_ptr<const CachedStoredPack> pack(const std::string& name) const;

    struct Found {
        std::shared_ptr<const CachedStoredPack> pack;
        StoredPackEntry entry;
    };
    // The first pack that holds the object.
    std::optional<Found> find(const Digest& id) const;
    // Forgets a pack found damaged and removes its files (index first).
    void discard(const std::string& name);

    // Removes packs unused since `limit` and pieces left without an index for a day; returns
    // the number of files removed.
    std::size_t expire(std::chrono::system_clock::time_point limit);

  private:
    // Takes in packs other processes placed since the last look.
    void loadNew() const;

    std::filesystem::path folder_;
    mutable std::shared_mutex mutex_;
    // Guarded by mutex_: the packs known, by name.
    mutable std::map<std::string, std::shared_ptr<const CachedStoredPack>> packs_;
    // Guarded by mutex_: the folder's time at the last look, and when that look was.
    mutable std::filesystem::file_time_type folderTime_{};
    mutable std::filesystem::file_time_type scanTime_{};
};

}  // namespace corvane
