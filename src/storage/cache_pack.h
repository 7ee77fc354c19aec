// Cache packs: many objects' cache files in one file, so that a large push creates two files
// instead of one per object (on disk file systems, creating files was most of such a push's
// time).
//
// NAME.pack holds the files back to back, each exactly the loose cache file its object would
// have had, so a pack record can name an object's byte range as its asset. NAME.idx, written
// once every object is in, lists them sorted by id: the magic "CVPI", a 4-byte version (1) and a
// 4-byte count, then per object its 20-byte id, 8-byte offset and 8-byte length, big-endian. A
// pack without its index is one still being written, or abandoned.
//
// Thread safety: a CachePackWriter takes append() and find() from any thread, seal() and
// abandon() once every append has returned. A CachePackIndex is read-only and safe anywhere.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "base/bytes.h"
#include "objects/sha1.h"

namespace corvane {

struct CachePackEntry {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

// An object's cache file in a pack, for whoever reads it.
struct CachePackSlice {
    std::filesystem::path pack;
    CachePackEntry entry;
};

class CachePackWriter {
  public:
    // Creates an empty NAME.pack with a fresh random name in `folder`.
    explicit CachePackWriter(const std::filesystem::path& folder);
    ~CachePackWriter();
    CachePackWriter(const CachePackWriter&) = delete;
    CachePackWriter& operator=(const CachePackWriter&) = delete;

    // Adds an object's cache file; it can be read as soon as this returns.
    void append(const Digest& id, ByteView file);
    std::optional<CachePackEntry> find(const Digest& id) const;
    // The file's bytes; throws when they cannot be read.
    Bytes read(const CachePackEntry& entry) const;

    // Writes the index, which makes the pack one that every store finds; returns its path.
    std::filesystem::path seal();
    // Deletes the pack (and an index a failed seal may have left).
    void abandon();

    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
    int fd_ = -1;
    std::atomic<std::uint64_t> end_{0};
    mutable std::mutex mutex_;
    std::unordered_map<Digest, CachePackEntry, DigestHash> entries_;  // guarded by mutex_
};

class CachePackIndex {
  public:
    // Maps NAME.idx and opens NAME.pack. Throws when either is missing or the index is not one.
    explicit CachePackIndex(const std::filesystem::path& indexPath);
    ~CachePackIndex();
    CachePackIndex(const CachePackIndex&) = delete;
    CachePackIndex& operator=(const CachePackIndex&) = delete;

    std::optional<CachePackEntry> find(const Digest& id) const;
    // The file's bytes; throws when they cannot be read (a pack cut short reads as damaged).
    Bytes read(const CachePackEntry& entry) const;
    std::size_t count() const { return count_; }

    const std::filesystem::path& packPath() const { return packPath_; }
    const std::filesystem::path& indexPath() const { return indexPath_; }

    // Records a use in the pack file's modification time, at most once an hour: the expiry
    // sweep judges a pack by it.
    void noteUse() const;

  private:
    std::filesystem::path indexPath_;
    std::filesystem::path packPath_;
    int packFd_ = -1;
    const std::uint8_t* map_ = nullptr;
    std::size_t mapSize_ = 0;
    std::size_t count_ = 0;
    mutable std::atomic<std::int64_t> lastUse_{0};  // seconds since the epoch
};

// NAME.pack for NAME.idx, and the other way round.
std::filesystem::path packPathFor(const std::filesystem::path& indexPath);
std::filesystem::path indexPathFor(const std::filesystem::path& packPath);

}  // namespace corvane
