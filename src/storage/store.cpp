#include "storage/store.h"

#include <atomic>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/error.h"
#include "base/queues.h"
#include "base/trace.h"
#include "cloud/private_directory.h"
#include "objects/sha1.h"
#include "objects/split_zlib.h"
#include "objects/zlib.h"
#include "storage/file_io.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

constexpr const char* kWorkingFolder = "zzz";
constexpr const char* kPacksFolder = "packs";
constexpr const char* kStoredPacksFolder = "stored";
// Stored packs whose deltas lean on each other's objects: hops from one to another while one
// object is rebuilt. Real histories need a few; more means a loop.
constexpr int kMaxPackHops = 64;
// A pack still without its index after this long belongs to a writer that is gone.
constexpr auto kAbandonedPackAge = std::chrono::hours(24);

// Loose-object header: "<type name> <decimal size>\0"; the data follows it.
std::string looseHeader(const Object& object) {
    std::string header(typeName(object.type()));
    header += ' ';
    header += std::to_string(object.data().size());
    header += '\0';
    return header;
}

std::optional<ObjectType> typeFromHeaderName(std::string_view name) {
    if (name == "error") return ObjectType::error;
    return objectTypeFromName(name);
}

// The data size a "<type name> <decimal size>\0" header declares: how much to inflate. The
// header is checked strictly afterwards (parseHeader).
std::optional<std::size_t> declaredSize(ByteView headerBytes) {
    auto header = asText(headerBytes);
    auto space = header.find(' ');
    if (space == std::string_view::npos || !header.ends_with('\0')) return std::nullopt;
    std::size_t size = 0;
    auto digits = header.substr(space + 1, header.size() - space - 2);
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), size);
    if (error != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
    return size;
}

// The type of a "<type name> <decimal size>\0" header whose size is the data's.
std::optional<ObjectType> parseHeader(std::string_view header, std::size_t dataSize) {
    auto space = header.find(' ');
    if (space == std::string_view::npos || !header.ends_with('\0')) return std::nullopt;
    auto type = typeFromHeaderName(header.substr(0, space));
    auto length = header.substr(space + 1, header.size() - space - 2);
    if (!type || length != std::to_string(dataSize)) return std::nullopt;
    return type;
}

void touch(const fs::path& path) {
    ::utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
}

// The loose file an object has, split after the header so that a pack entry can reuse the
// data's compressed blocks.
Bytes cacheFile(const Object& object) {
    return zlibDeflateSplit(asBytes(looseHeader(object)), object.data());
}

// The object a cache file holds. `discard` runs when the bytes are not that object, so that it
// is downloaded again ("Corrupted cache file for object <id>"); a bad header of a sound file
// gives "Failed to decode object <id>".
Object decodeCacheFile(const std::string& id, const Bytes& file, std::optional<Bytes>* dataStream,
                       const std::function<void()>& discard) {
    auto corrupted = [&] {
        discard();
        return Error("Corrupted cache file for object " + id);
    };
    Bytes header;
    Bytes data;
    std::optional<SplitStream> split;
    try {
        split = zlibInflateSplit(file, declaredSize);
        if (split) {
            header = std::move(split->head);
            data = std::move(split->body);
        } else {
            data = zlibInflate(file);
            auto nul = std::find(data.begin(), data.end(), std::uint8_t{0});
            if (nul != data.end()) ++nul;
            header.assign(data.begin(), nul);
            data.erase(data.begin(), nul);
        }
    } catch (const Error&) {
        throw corrupted();  // truncated or overwritten: no longer a zlib stream
    }
    auto type = parseHeader(asText(header), data.size());
    if (!type) {
        // Undecodable: a damaged file and a well-kept odd one differ by their hash.
        SHA1Context context;
        context.update(header);
        context.update(data);
        if (hexString(context.finish()) != id) throw corrupted();
        throw Error("Failed to decode object " + id);
    }
    Object object(*type, std::move(data));
    if (object.id() != id) throw corrupted();
    if (dataStream && split) *dataStream = std::move(split->bodyStream);
    return object;
}

}  // namespace

fs::path Store::defaultRoot() {
    const char* cache = std::getenv("XDG_CACHE_HOME");
    fs::path base;
    if (cache && *cache) {
        base = cache;
    } else {
        const char* home = std::getenv("HOME");
        if (!home || !*home) throw Error("Cannot find the cache folder: HOME is not set");
        base = fs::path(home) / ".cache";
    }
    return base / "corvane" / "Objects";
}

Store::Store(fs::path root) : Store(std::move(root), Timing{}) {}

Store::Store(fs::path root, Timing timing)
    : root_(std::move(root)),
      packsFolder_(root_ / kPacksFolder),
      storedPacks_(root_ / kStoredPacksFolder),
      timing_(timing) {
    // Other users of the machine read nothing of the cache: everything is below a 0700 root.
    cloud::createPrivateDirectories(root_);
    fs::create_directories(packsFolder_);
    loadNewPacks();
    if (timing_.runExpiryThread) expiryThread_ = std::thread([this] { expiryLoop(); });
}

Store::~Store() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    stopRequested_.notify_all();
    if (expiryThread_.joinable()) expiryThread_.join();
}

fs::path Store::objectPath(const std::string& id) const {
    return root_ / id.substr(0, 3) / id;
}

bool Store::hasObject(const std::string& id) const {
    return locate(id).has_value() ||
           (isObjectId(id) && storedPacks_.find(digestOfId(id)).has_value());
}

std::optional<Store::PackedEntry> Store::searchPacks(const Digest& id) const {
    if (damaged_.contains(id)) return std::nullopt;
    for (const auto& pack : openPacks_) {
        if (auto entry = pack->find(id)) return PackedEntry{nullptr, pack, *entry};
    }
    for (auto pack = sealedPacks_.rbegin(); pack != sealedPacks_.rend(); ++pack) {
        if (auto entry = (*pack)->find(id)) return PackedEntry{*pack, nullptr, *entry};
    }
    return std::nullopt;
}

std::optional<Store::PackedEntry> Store::findPacked(const std::string& id) const {
    if (!isObjectId(id)) return std::nullopt;
    auto digest = digestOfId(id);
    {
        std::shared_lock lock(packsMutex_);
        if (auto found = searchPacks(digest)) return found;
    }
    if (!loadNewPacks()) return std::nullopt;
    std::shared_lock lock(packsMutex_);
    return searchPacks(digest);
}

bool Store::loadNewPacks() const {
    std::error_code error;
    auto folderTime = fs::last_write_time(packsFolder_, error);
    if (error) return false;
    // A folder time can stay the same across changes close together; one that has stood for a
    // while since the last look means nothing came.
    auto unchanged = [&] {
        return folderTime == packsFolderTime_ &&
               packsFolderTime_ < packsScanTime_ - std::chrono::seconds(1);
    };
    {
        std::shared_lock lock(packsMutex_);
        if (unchanged()) return false;
    }
    std::unique_lock lock(packsMutex_);
    if (unchanged()) return false;
    packsFolderTime_ = folderTime;
    packsScanTime_ = fs::file_time_type::clock::now();
    std::set<fs::path> known;
    for (const auto& pack : sealedPacks_)
        known.insert(pack->indexPath());
    bool loaded = false;
    for (fs::directory_iterator it(packsFolder_, error), end; !error && it != end;
         it.increment(error)) {
        const auto& path = it->path();
        if (path.extension() != ".idx" || known.contains(path)) continue;
        try {
            sealedPacks_.push_back(std::make_shared<const CachePackIndex>(path));
            loaded = true;
        } catch (const Error& failure) {
            // Its objects count as absent, and are downloaded again when wanted.
            trace(TraceModule::error, failure.what());
        }
    }
    return loaded;
}

std::optional<Store::CacheFileLocation> Store::locate(const std::string& id) const {
    if (auto packed = findPacked(id)) {
        const auto& file = packed->sealed ? packed->sealed->packPath() : packed->open->path();
        return CacheFileLocation{file, packed->entry.offset, packed->entry.length, false};
    }
    auto path = objectPath(id);
    std::error_code error;
    auto size = fs::file_size(path, error);
    if (error) return std::nullopt;
    return CacheFileLocation{std::move(path), 0, size, true};
}

void Store::putObject(const Object& object) {
    fs::path path = objectPath(object.id());
    fs::create_directories(path.parent_path());
    writeFileAtomically(path, cacheFile(object));
}

std::shared_ptr<CachePackWriter> Store::beginPack() {
    auto pack = std::make_shared<CachePackWriter>(packsFolder_);
    std::unique_lock lock(packsMutex_);
    openPacks_.push_back(pack);
    return pack;
}

void Store::putObject(const Object& object, CachePackWriter& pack) {
    if (hasObject(object.id())) return;
    pack.append(digestOfId(object.id()), cacheFile(object));
}

void Store::commitPack(const std::shared_ptr<CachePackWriter>& pack) {
    auto sealed = std::make_shared<const CachePackIndex>(pack->seal());
    std::unique_lock lock(packsMutex_);
    sealedPacks_.push_back(std::move(sealed));
    std::erase(openPacks_, pack);
}

void Store::abandonPack(const std::shared_ptr<CachePackWriter>& pack) {
    {
        std::unique_lock lock(packsMutex_);
        std::erase(openPacks_, pack);
    }
    pack->abandon();
}

Object Store::getObject(const std::string& id) {
    return getObject(id, nullptr);
}

Object Store::getObject(const std::string& id, std::optional<Bytes>* dataStream) {
    if (auto packed = findPacked(id)) {
        Bytes file = packed->sealed ? packed->sealed->read(packed->entry)
                                    : packed->open->read(packed->entry);
        auto object = decodeCacheFile(id, file, dataStream, [&] {
            // A pack is not rewritten: the entry is passed over from now on.
            std::unique_lock lock(packsMutex_);
            damaged_.insert(digestOfId(id));
        });
        if (packed->sealed) packed->sealed->noteUse();
        return object;
    }
    if (isObjectId(id) && !fs::exists(objectPath(id))) {
        if (auto stored = storedPacks_.find(digestOfId(id))) {
            thread_local int hops = 0;
            if (hops >= kMaxPackHops)
                throw Error("Corrupted pack " + stored->pack->name() + ": the delta chain of " +
                            id + " loops through other packs");
            ++hops;
            struct Leave {
                ~Leave() { --hops; }
            } leave;
            const auto& pack = stored->pack;
            try {
                auto object = readStoredObject(
                    pack->name(), pack->index(),
                    [&](const StoredPackEntry& entry) { return pack->readEntry(entry); },
                    digestOfId(id),
                    [this](const std::string& base) {
                        if (!hasObject(base)) throw MissingBase(base);
                        return getObject(base);
                    });
                pack->noteUse();
                return object;
            } catch (const CorruptedPack& failure) {
                // This copy is damaged: dropped, it is downloaded again (ObjectFetcher).
                if (failure.pack() == pack->name()) storedPacks_.discard(pack->name());
                throw;
            }
        }
    }
    // A damaged file goes, so that the object is downloaded again (ObjectFetcher::readObject).
    fs::path path = objectPath(id);
    auto object = decodeCacheFile(id, readFile(path), dataStream, [&] {
        std::error_code ignored;
        fs::remove(path, ignored);
    });
    touch(path);
    return object;
}

void Store::placeObjectFile(const std::string& id, const fs::path& file) {
    if (findPacked(id)) return;
    fs::path path = objectPath(id);
    fs::create_directories(path.parent_path());
    // A download is checked when it is first read, as every cache file is: checking it here
    // as well would inflate and hash each object of a cold clone twice.
    if (copyFileIfAbsent(file, path)) return;
    try {
        getObject(id);
        return;
    } catch (const Error&) {
        if (fs::exists(path)) throw;  // a sound file of an odd object: kept as it is
    }
    // The file that was there was damaged, and reading it removed it: the download replaces it.
    copyFileIfAbsent(file, path);
}

fs::path Store::workingFile(const std::string& name) const {
    std::error_code ignored;
    fs::create_directories(root_ / kWorkingFolder, ignored);
    return root_ / kWorkingFolder / name;
}

fs::path Store::uniqueWorkingFile(const std::string& prefix) const {
    static std::atomic<std::uint64_t> next{0};
    return workingFile(prefix + "." + std::to_string(::getpid()) + "." + std::to_string(++next));
}

std::size_t Store::expire(Clock::time_point now) {
    auto limit = now - timing_.cacheExpirationInterval;
    std::size_t deleted = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root_, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path() == packsFolder_ || it->path() == root_ / kStoredPacksFolder) {
            it.disable_recursion_pending();
            continue;
        }
        if (it->path().filename().string().starts_with('.')) {
            if (it->is_directory()) it.disable_recursion_pending();
            continue;
        }
        if (it->is_directory()) continue;
        struct stat info {};
        if (::stat(it->path().c_str(), &info) != 0) continue;
        auto lastUse = Clock::from_time_t(info.st_mtim.tv_sec);
        if (lastUse < limit) {
            std::error_code ignored;
            if (fs::remove(it->path(), ignored)) ++deleted;
        }
    }
    deleted += expirePacks(limit);
    deleted += storedPacks_.expire(limit);
    if (deleted > 0) {
        trace(TraceModule::info, "Deleted " + std::to_string(deleted) + " expired cache files");
    }
    return deleted;
}

std::size_t Store::expirePacks(Clock::time_point limit) {
    auto abandoned = Clock::now() - kAbandonedPackAge;
    std::set<fs::path> writing;
    {
        std::shared_lock lock(packsMutex_);
        for (const auto& pack : openPacks_)
            writing.insert(pack->path());
    }
    std::vector<fs::path> expired;
    std::error_code error;
    for (fs::directory_iterator it(packsFolder_, error), end; !error && it != end;
         it.increment(error)) {
        const auto& path = it->path();
        if (path.extension() != ".pack" || writing.contains(path)) continue;
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) continue;
        auto lastUse = Clock::from_time_t(info.st_mtim.tv_sec);
        bool sealed = fs::exists(indexPathFor(path));
        if (lastUse < (sealed ? limit : abandoned)) expired.push_back(path);
    }
    std::size_t deleted = 0;
    for (const auto& pack : expired) {
        std::error_code ignored;
        // The index first: without it nobody finds the pack any more.
        if (fs::remove(indexPathFor(pack), ignored)) ++deleted;
        if (fs::remove(pack, ignored)) ++deleted;
    }
    if (!expired.empty()) {
        // Readers holding a pack keep reading it; it is only no longer found.
        std::unique_lock lock(packsMutex_);
        std::erase_if(sealedPacks_, [&](const auto& pack) {
            return std::find(expired.begin(), expired.end(), pack->packPath()) != expired.end();
        });
    }
    return deleted;
}

void Store::expiryLoop() {
    setThreadName("cache_expiry");
    std::unique_lock lock(mutex_);
    auto wait = timing_.firstSweep;
    for (;;) {
        if (stopRequested_.wait_for(lock, wait, [&] { return stopping_; })) return;
        lock.unlock();
        expire(Clock::now());
        lock.lock();
        wait = timing_.sweepPeriod;
    }
}

}  // namespace corvane
