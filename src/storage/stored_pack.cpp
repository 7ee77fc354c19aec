#include "storage/stored_pack.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <list>

#include "base/big_endian.h"
#include "base/error.h"
#include "objects/delta.h"
#include "objects/zlib.h"

namespace corvane {

namespace {

constexpr char kMagic[4] = {'C', 'V', 'P', '3'};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHeaderSize = 4 + 4 + 4 + 4 + 8 + 20;
constexpr std::size_t kEntrySize = 20 + 4 + 4 + 4 + 1 + 4;
constexpr std::uint32_t kNoBase = 0xffffffff;
constexpr std::uint32_t kExternal = 0x80000000;

Error corruptIndex(const std::string& why) {
    return Error("Corrupted pack index: " + why);
}

// Objects of one pack rebuilt lately on this thread, the most recent first. Reads in the order
// of a pack's data walk the same chains again and again (each version of a tree on the one
// before), and a chain is rebuilt from the nearest object kept instead of from its whole object.
// Only the pack read last is kept: a chain that loops through a damaged index still ends in the
// error, whatever other packs held.
class RebuiltObjects {
  public:
    static constexpr std::size_t kBytes = 8 << 20;

    void usePack(const std::string& name) {
        if (name == pack_) return;
        order_.clear();
        byId_.clear();
        bytes_ = 0;
        pack_ = name;
    }

    const Object* find(const Digest& id) {
        auto found = byId_.find(id);
        if (found == byId_.end()) return nullptr;
        order_.splice(order_.begin(), order_, found->second);
        return &found->second->second;
    }
    void keep(const Digest& id, const Object& object) {
        if (object.data().size() > kBytes / 4 || byId_.contains(id)) return;
        order_.emplace_front(id, object);
        byId_.emplace(id, order_.begin());
        bytes_ += object.data().size();
        while (bytes_ > kBytes) {
            bytes_ -= order_.back().second.data().size();
            byId_.erase(order_.back().first);
            order_.pop_back();
        }
    }

  private:
    std::string pack_;
    std::list<std::pair<Digest, Object>> order_;
    std::unordered_map<Digest, std::list<std::pair<Digest, Object>>::iterator, DigestHash> byId_;
    std::size_t bytes_ = 0;
};

thread_local RebuiltObjects rebuiltObjects;

}  // namespace

Bytes packEntryHeader(ObjectType type, std::uint64_t size) {
    Bytes header;
    auto byte = static_cast<std::uint8_t>((static_cast<unsigned>(type) << 4) | (size & 0x0f));
    size >>= 4;
    while (size > 0) {
        header.push_back(byte | 0x80);
        byte = static_cast<std::uint8_t>(size & 0x7f);
        size >>= 7;
    }
    header.push_back(byte);
    return header;
}

void appendOffsetDistance(Bytes& out, std::uint64_t distance) {
    std::uint8_t bytes[10];
    int at = 9;
    bytes[at] = static_cast<std::uint8_t>(distance & 0x7f);
    while (distance >>= 7) {
        --distance;
        bytes[--at] = static_cast<std::uint8_t>(0x80 | (distance & 0x7f));
    }
    out.insert(out.end(), bytes + at, bytes + 10);
}

bool isStoredPackName(std::string_view name) {
    return name.size() == 41 && name[0] == 'P' && isObjectId(name.substr(1));
}

bool holdsStoredPacks(const RepositoryContent& content) {
    return std::any_of(content.packs.begin(), content.packs.end(),
                       [](const auto& pack) { return isStoredPackName(pack.first); });
}

StoredPackBuilder::StoredPackBuilder(std::function<std::filesystem::path()> newDataFile)
    : newDataFile_(std::move(newDataFile)) {}

StoredPackBuilder::~StoredPackBuilder() {
    if (fd_ < 0) return;
    closeFile();
    std::error_code ignored;
    std::filesystem::remove(dataFile_, ignored);
}

void StoredPackBuilder::closeFile() {
    ::close(fd_);
    fd_ = -1;
}

void StoredPackBuilder::append(const Digest& id, StoredEntryKind kind, std::optional<Digest> base,
                               ByteView header, ByteView stream) {
    std::uint64_t length = header.size() + stream.size();
    if (size_ + length > std::numeric_limits<std::uint32_t>::max())
        throw Error("A stored pack holds at most 4 GiB");
    Bytes entry(header.begin(), header.end());
    entry.insert(entry.end(), stream.begin(), stream.end());
    if (newDataFile_) {
        if (fd_ < 0) {
            dataFile_ = newDataFile_();
            fd_ = ::open(dataFile_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (fd_ < 0) throw Error("Failed to create " + dataFile_.string());
        }
        for (std::size_t written = 0; written < entry.size();) {
            auto done = ::pwrite(fd_, entry.data() + written, entry.size() - written,
                                 static_cast<off_t>(size_ + written));
            if (done <= 0) throw Error("Failed to write " + dataFile_.string());
            written += static_cast<std::size_t>(done);
        }
    } else {
        data_.insert(data_.end(), entry.begin(), entry.end());
    }
    hash_.update(entry);
    entries_.push_back({id, static_cast<std::uint32_t>(size_), static_cast<std::uint32_t>(length),
                        crc32Of(entry), kind, base});
    byId_.emplace(id, entries_.size() - 1);
    size_ += length;
}

bool StoredPackBuilder::contains(const Digest& id) const {
    return byId_.contains(id);
}

Object StoredPackBuilder::read(const Digest& id, const OutsideBase& outside) const {
    auto find = [&](const Digest& wanted) -> std::optional<StoredPackEntry> {
        auto found = byId_.find(wanted);
        if (found == byId_.end()) return std::nullopt;
        return entries_[found->second];
    };
    if (fd_ < 0)
        return readStoredObject("being received", find, entriesOf("being received", data_), id,
                                outside);
    auto readEntry = [&](const StoredPackEntry& entry) {
        Bytes bytes(entry.length);
        for (std::size_t done = 0; done < bytes.size();) {
            auto got = ::pread(fd_, bytes.data() + done, bytes.size() - done,
                               static_cast<off_t>(entry.offset + done));
            if (got <= 0) throw Error("Failed to read " + dataFile_.string());
            done += static_cast<std::size_t>(got);
        }
        return bytes;
    };
    return readStoredObject("being received", find, readEntry, id, outside);
}

void StoredPackBuilder::addWhole(const Digest& id, ObjectType type, std::uint64_t size,
                                 ByteView stream) {
    auto header = packEntryHeader(type, size);
    append(id, StoredEntryKind::whole, std::nullopt, header, stream);
}

void StoredPackBuilder::addDelta(const Digest& id, const Digest& base, std::uint64_t deltaSize,
                                 ByteView stream) {
    if (auto found = byId_.find(base); found != byId_.end()) {
        auto header = packEntryHeader(ObjectType::ofsDelta, deltaSize);
        appendOffsetDistance(header, size_ - entries_[found->second].offset);
        append(id, StoredEntryKind::ofsDelta, base, header, stream);
        return;
    }
    auto header = packEntryHeader(ObjectType::refDelta, deltaSize);
    header.insert(header.end(), base.begin(), base.end());
    append(id, StoredEntryKind::refDelta, base, header, stream);
}

StoredPackBuilder::Built StoredPackBuilder::finish() {
    Built built;
    Digest hash = hash_.finish();
    built.name = "P" + hexString(hash);

    // Entries by id, each base by its place: in this pack, or among the outside ones.
    std::vector<std::size_t> order(entries_.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(),
              [&](std::size_t a, std::size_t b) { return entries_[a].id < entries_[b].id; });
    std::vector<Digest> sortedIds;
    sortedIds.reserve(order.size());
    for (auto i : order)
        sortedIds.push_back(entries_[i].id);
    std::vector<Digest> external;
    for (const auto& entry : entries_) {
        if (entry.base && !std::binary_search(sortedIds.begin(), sortedIds.end(), *entry.base))
            external.push_back(*entry.base);
    }
    std::sort(external.begin(), external.end());
    external.erase(std::unique(external.begin(), external.end()), external.end());

    Bytes& index = built.index;
    index.insert(index.end(), kMagic, kMagic + 4);
    putBigEndian(index, kVersion, 4);
    putBigEndian(index, order.size(), 4);
    putBigEndian(index, external.size(), 4);
    putBigEndian(index, size_, 8);
    index.insert(index.end(), hash.begin(), hash.end());
    for (auto i : order) {
        const auto& entry = entries_[i];
        index.insert(index.end(), entry.id.begin(), entry.id.end());
        putBigEndian(index, entry.offset, 4);
        putBigEndian(index, entry.length, 4);
        putBigEndian(index, entry.crc32, 4);
        index.push_back(static_cast<std::uint8_t>(entry.kind));
        std::uint64_t base = kNoBase;
        if (entry.base) {
            auto inside = std::lower_bound(sortedIds.begin(), sortedIds.end(), *entry.base);
            base = inside != sortedIds.end() && *inside == *entry.base
                       ? static_cast<std::uint64_t>(inside - sortedIds.begin())
                       : kExternal +
                             static_cast<std::uint64_t>(
                                 std::lower_bound(external.begin(), external.end(), *entry.base) -
                                 external.begin());
        }
        putBigEndian(index, base, 4);
    }
    for (const auto& id : external)
        index.insert(index.end(), id.begin(), id.end());

    built.data = std::move(data_);
    if (fd_ >= 0) {
        closeFile();
        built.dataFile = std::move(dataFile_);
    }
    data_.clear();
    dataFile_.clear();
    size_ = 0;
    const SHA1Context fresh;
    hash_ = fresh;
    entries_.clear();
    byId_.clear();
    return built;
}

StoredPackIndex::StoredPackIndex(Bytes bytes) : bytes_(std::move(bytes)) {
    const std::uint8_t* in = bytes_.data();
    if (bytes_.size() < kHeaderSize || std::memcmp(in, kMagic, 4) != 0)
        throw corruptIndex("not a pack index");
    if (readBigEndian(in + 4, 4) != kVersion)
        throw corruptIndex("version " + std::to_string(readBigEndian(in + 4, 4)));
    count_ = static_cast<std::size_t>(readBigEndian(in + 8, 4));
    externalCount_ = static_cast<std::size_t>(readBigEndian(in + 12, 4));
    dataSize_ = readBigEndian(in + 16, 8);
    std::memcpy(dataHash_.data(), in + 24, 20);
    if (bytes_.size() != kHeaderSize + count_ * kEntrySize + externalCount_ * 20)
        throw corruptIndex("its length does not match its counts");
    if (dataSize_ > std::numeric_limits<std::uint32_t>::max())
        throw corruptIndex("data larger than 4 GiB");

    // Everything a reader relies on, once: order, bounds, kinds and bases.
    const std::uint8_t* externals = in + kHeaderSize + count_ * kEntrySize;
    for (std::size_t k = 1; k < externalCount_; ++k) {
        if (std::memcmp(externals + (k - 1) * 20, externals + k * 20, 20) >= 0)
            throw corruptIndex("external bases out of order");
    }
    for (std::size_t i = 0; i < count_; ++i) {
        const std::uint8_t* entry = in + kHeaderSize + i * kEntrySize;
        if (i > 0 && std::memcmp(entry - kEntrySize, entry, 20) >= 0)
            throw corruptIndex("ids out of order");
        std::uint64_t offset = readBigEndian(entry + 20, 4);
        std::uint64_t length = readBigEndian(entry + 24, 4);
        if (length < 2 || offset + length > dataSize_) throw corruptIndex("entry out of bounds");
        auto kind = entry[32];
        std::uint64_t base = readBigEndian(entry + 33, 4);
        switch (static_cast<StoredEntryKind>(kind)) {
            case StoredEntryKind::whole:
                if (base != kNoBase) throw corruptIndex("a whole object with a base");
                break;
            case StoredEntryKind::ofsDelta:
                if (base >= count_) throw corruptIndex("an ofs-delta without its base");
                if (readBigEndian(in + kHeaderSize + base * kEntrySize + 20, 4) >= offset)
                    throw corruptIndex("an ofs-delta before its base");
                break;
            case StoredEntryKind::refDelta:
                if (base == kNoBase ||
                    (base >= kExternal ? base - kExternal >= externalCount_ : base >= count_))
                    throw corruptIndex("a ref-delta without its base");
                break;
            default:
                throw corruptIndex("unknown kind " + std::to_string(kind));
        }
    }
}

StoredPackEntry StoredPackIndex::at(std::size_t position) const {
    const std::uint8_t* entry = bytes_.data() + kHeaderSize + position * kEntrySize;
    StoredPackEntry result;
    std::memcpy(result.id.data(), entry, 20);
    result.offset = static_cast<std::uint32_t>(readBigEndian(entry + 20, 4));
    result.length = static_cast<std::uint32_t>(readBigEndian(entry + 24, 4));
    result.crc32 = static_cast<std::uint32_t>(readBigEndian(entry + 28, 4));
    result.kind = static_cast<StoredEntryKind>(entry[32]);
    auto base = readBigEndian(entry + 33, 4);
    if (base == kNoBase) return result;
    const std::uint8_t* baseId =
        base >= kExternal
            ? bytes_.data() + kHeaderSize + count_ * kEntrySize + (base - kExternal) * 20
            : bytes_.data() + kHeaderSize + base * kEntrySize;
    result.base.emplace();
    std::memcpy(result.base->data(), baseId, 20);
    return result;
}

std::optional<StoredPackEntry> StoredPackIndex::find(const Digest& id) const {
    std::size_t low = 0, high = count_;
    while (low < high) {
        std::size_t middle = low + (high - low) / 2;
        int order = std::memcmp(bytes_.data() + kHeaderSize + middle * kEntrySize, id.data(), 20);
        if (order == 0) return at(middle);
        if (order < 0)
            low = middle + 1;
        else
            high = middle;
    }
    return std::nullopt;
}

void checkEntry(const std::string& name, const StoredPackEntry& entry, ByteView bytes) {
    if (bytes.size() != entry.length) throw CorruptedPack(name, "its data is cut short");
    if (crc32Of(bytes) != entry.crc32)
        throw CorruptedPack(name, "the entry of " + hexString(entry.id) + " is damaged");
}

EntryReader entriesOf(const std::string& name, ByteView data) {
    return [name, data](const StoredPackEntry& entry) {
        if (std::uint64_t{entry.offset} + entry.length > data.size())
            throw CorruptedPack(name, "its data is cut short");
        auto bytes = data.subspan(entry.offset, entry.length);
        checkEntry(name, entry, bytes);
        return Bytes(bytes.begin(), bytes.end());
    };
}

StoredEntryView viewEntry(ByteView bytes, const StoredPackEntry& entry) {
    if (bytes.size() != entry.length || bytes.empty())
        throw Error("Corrupted pack entry: not the length its index says");
    StoredEntryView view;
    std::size_t at = 0;
    std::uint8_t byte = bytes[at++];
    view.typeCode = (byte >> 4) & 0x07;
    view.size = byte & 0x0f;
    for (unsigned shift = 4; byte & 0x80; shift += 7) {
        if (at >= bytes.size() || shift > 57) throw Error("Corrupted pack entry: its header");
        byte = bytes[at++];
        view.size |= std::uint64_t{byte & 0x7fu} << shift;
    }
    bool expected = false;
    switch (entry.kind) {
        case StoredEntryKind::whole:
            expected = view.typeCode >= 1 && view.typeCode <= 4;
            break;
        case StoredEntryKind::ofsDelta:
            expected = view.typeCode == 6;
            // The distance was checked through the index; its bytes are skipped here.
            while (expected && at < bytes.size() && (bytes[at] & 0x80))
                ++at;
            ++at;
            break;
        case StoredEntryKind::refDelta:
            expected = view.typeCode == 7 && at + 20 <= bytes.size() &&
                       std::equal(entry.base->begin(), entry.base->end(), bytes.begin() + at);
            at += 20;
            break;
    }
    if (!expected || at >= bytes.size())
        throw Error("Corrupted pack entry: it is not what its index says");
    view.header = bytes.first(at);
    view.stream = bytes.subspan(at);
    return view;
}

Object readStoredObject(const std::string& name, const StoredPackIndex& index,
                        const EntryReader& read, const Digest& id, const OutsideBase& outside) {
    return readStoredObject(
        name, [&](const Digest& wanted) { return index.find(wanted); }, read, id, outside);
}

Object readStoredObject(const std::string& name, const EntryFinder& find, const EntryReader& read,
                        const Digest& id, const OutsideBase& outside) {
    // The chain from the object down to a whole one (or one from outside), then back up.
    rebuiltObjects.usePack(name);
    std::vector<StoredPackEntry> chain;
    std::optional<Object> object;
    Digest next = id;
    for (;;) {
        if (chain.size() > static_cast<std::size_t>(kMaxDeltaDepth))
            throw CorruptedPack(name,
                                "the delta chain of " + hexString(id) + " loops or runs too deep");
        if (!chain.empty()) {
            if (const Object* kept = rebuiltObjects.find(next)) {
                object = *kept;
                break;
            }
        }
        auto entry = find(next);
        if (!entry) {
            if (chain.empty()) throw CorruptedPack(name, "it does not hold " + hexString(id));
            object = outside(hexString(next));
            rebuiltObjects.usePack(name);  // the outside read may have been of another pack
            break;
        }
        chain.push_back(*entry);
        if (entry->kind == StoredEntryKind::whole) break;
        next = *entry->base;
    }
    for (auto entry = chain.rbegin(); entry != chain.rend(); ++entry) {
        Bytes bytes = read(*entry);
        try {
            auto view = viewEntry(bytes, *entry);
            Bytes inflated = zlibInflate(view.stream);
            if (inflated.size() != view.size) throw Error(hexString(entry->id) + " is cut short");
            object = entry->kind == StoredEntryKind::whole
                         ? Object(static_cast<ObjectType>(view.typeCode), std::move(inflated))
                         : apply(*object, RefDelta{object->id(), std::move(inflated)});
        } catch (const CorruptedPack&) {
            throw;
        } catch (const Error& failure) {
            throw CorruptedPack(name, failure.what());
        }
        if (object->id() != hexString(entry->id))
            throw CorruptedPack(name,
                                "object " + hexString(entry->id) + " does not match its data");
        rebuiltObjects.keep(entry->id, *object);
    }
    return *object;
}

}  // namespace corvane
