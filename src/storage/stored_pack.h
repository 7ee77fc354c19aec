// Stored packs (pack records of version 3, stored_pack.md): a push's objects kept as git keeps
// them, deltas and all. StoredPackBuilder lays out the data and its index as the pushed objects
// arrive; StoredPackIndex reads an index, checking it whole before anything trusts it;
// readStoredObject rebuilds one object from the data, following its delta chain and checking the
// result against its id. Values and pure functions: a builder has one owner; an index is
// immutable and safe on any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/bytes.h"
#include "base/error.h"
#include "objects/object.h"
#include "objects/sha1.h"
#include "storage/summaries.h"

namespace corvane {

// A push is stored as packs of at most this much data (the last may pass it by one object).
inline constexpr std::uint64_t kStoredPackLimit = 256ull << 20;
// The longest delta chain a reader follows; git's own packs stay under 50 by default.
inline constexpr int kMaxDeltaDepth = 4096;

// True for the name of a stored pack ("P" and 40 hexadecimal digits), false for a pack record of
// version 1 or 2 (three hexadecimal digits).
bool isStoredPackName(std::string_view name);
// Whether any of the repository's packs is a stored pack.
bool holdsStoredPacks(const RepositoryContent& content);

// Git's pack entry header: the type in bits 4-6 and size bits 0-3 of the first byte, then 7 size
// bits per byte, bit 7 marking that another byte follows.
Bytes packEntryHeader(ObjectType type, std::uint64_t size);

// Git's ofs-delta distance back to the base's entry: 7 bits a byte, most significant first, each
// continuation adding one.
void appendOffsetDistance(Bytes& out, std::uint64_t distance);

enum class StoredEntryKind : std::uint8_t { whole = 0, ofsDelta = 6, refDelta = 7 };

// One object of a stored pack, as the index gives it.
struct StoredPackEntry {
    Digest id{};
    std::uint32_t offset = 0;  // of its entry in the data
    std::uint32_t length = 0;  // the entry's bytes: header, base and zlib stream
    std::uint32_t crc32 = 0;   // of those bytes, checked whenever they are read
    StoredEntryKind kind = StoredEntryKind::whole;
    std::optional<Digest> base;  // a delta's base
};

using OutsideBase = std::function<Object(const std::string& id)>;

class StoredPackBuilder {
  public:
    // A builder that keeps the data in memory.
    StoredPackBuilder() = default;
    // A builder that writes the data to a new file as it comes, named by `newDataFile` for each
    // pack, so that a pack of hundreds of megabytes is not held in memory. A file not finished
    // is removed with the builder.
    explicit StoredPackBuilder(std::function<std::filesystem::path()> newDataFile);
    ~StoredPackBuilder();
    StoredPackBuilder(const StoredPackBuilder&) = delete;
    StoredPackBuilder& operator=(const StoredPackBuilder&) = delete;

    // A whole object: its type, its data's size and the zlib stream of its data.
    void addWhole(const Digest& id, ObjectType type, std::uint64_t size, ByteView stream);
    // A delta against `base`: the delta's size and the zlib stream of the delta. A base added
    // before (in this builder) makes it an ofs-delta, any other a ref-delta.
    void addDelta(const Digest& id, const Digest& base, std::uint64_t deltaSize, ByteView stream);

    bool contains(const Digest& id) const;
    // Rebuilds an object added before, its bases outside this builder from `outside`.
    Object read(const Digest& id, const OutsideBase& outside) const;
    std::size_t count() const { return entries_.size(); }
    std::uint64_t dataSize() const { return size_; }

    struct Built {
        std::string name;                // the record name: "P" and the data's SHA-1
        Bytes data;                      // the data, when kept in memory
        std::filesystem::path dataFile;  // else the file that holds it, now the caller's
        Bytes index;
    };
    // The data and its index; the builder is empty again.
    Built finish();

  private:
    void append(const Digest& id, StoredEntryKind kind, std::optional<Digest> base, ByteView header,
                ByteView stream);
    void closeFile();

    std::function<std::filesystem::path()> newDataFile_;
    std::filesystem::path dataFile_;  // the file being written, when there is one
    int fd_ = -1;
    Bytes data_;  // the data, when kept in memory
    std::uint64_t size_ = 0;
    SHA1Context hash_;
    std::vector<StoredPackEntry> entries_;                      // in data order
    std::unordered_map<Digest, std::size_t, DigestHash> byId_;  // id → entries_ position
};

class StoredPackIndex {
  public:
    // Reads an index; fails with "Corrupted pack index: " and what is wrong.
    explicit StoredPackIndex(Bytes bytes);

    std::size_t count() const { return count_; }
    std::uint64_t dataSize() const { return dataSize_; }
    const Digest& dataHash() const { return dataHash_; }
    StoredPackEntry at(std::size_t position) const;
    std::optional<StoredPackEntry> find(const Digest& id) const;

  private:
    Bytes bytes_;
    std::size_t count_ = 0;
    std::size_t externalCount_ = 0;
    std::uint64_t dataSize_ = 0;
    Digest dataHash_{};
};

// A failure of a stored pack's own bytes: its data does not rebuild the objects its index names.
// A reader that meets one in a cached copy drops the copy, to be downloaded again.
class CorruptedPack : public Error {
  public:
    CorruptedPack(std::string pack, const std::string& why)
        : Error("Corrupted pack " + pack + ": " + why), pack_(std::move(pack)) {}
    const std::string& pack() const { return pack_; }

  private:
    std::string pack_;
};

// Reads an entry's bytes, exactly entry.length of them, from wherever the data lives; fails
// (CorruptedPack) when they are not all there or not the bytes the index's CRC-32 names.
using EntryReader = std::function<Bytes(const StoredPackEntry& entry)>;
// The reader of a data held in memory.
EntryReader entriesOf(const std::string& name, ByteView data);
// Checks bytes read for an entry against its length and CRC-32; CorruptedPack when they differ.
void checkEntry(const std::string& name, const StoredPackEntry& entry, ByteView bytes);

// The parts of an entry, from its own bytes. Fails with "Corrupted pack entry" when the bytes do
// not hold what the index says.
struct StoredEntryView {
    std::uint8_t typeCode = 0;  // as in the header: 1 to 4, 6 or 7
    std::uint64_t size = 0;     // inflated size
    ByteView header;            // the type and size bytes
    ByteView stream;            // the zlib stream, to the entry's end
};
StoredEntryView viewEntry(ByteView entryBytes, const StoredPackEntry& entry);

// Rebuilds the object `id` of the pack `name` from its data. A base outside the pack comes from
// `outside` (older packs, the cache), whose failures pass unchanged. Fails with CorruptedPack
// ("Corrupted pack <name>: …") for an object the data does not rebuild into the object its id
// names, a chain that loops or runs deeper than kMaxDeltaDepth, or an id the index lacks.
Object readStoredObject(const std::string& name, const StoredPackIndex& index,
                        const EntryReader& read, const Digest& id, const OutsideBase& outside);
// The same over any way of finding a pack's entries by id.
using EntryFinder = std::function<std::optional<StoredPackEntry>(const Digest& id)>;
Object readStoredObject(const std::string& name, const EntryFinder& find, const EntryReader& read,
                        const Digest& id, const OutsideBase& outside);

}  // namespace corvane
