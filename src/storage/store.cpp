#include "storage/store.h"

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
#include "objects/sha1.h"
#include "objects/split_zlib.h"
#include "objects/zlib.h"
#include "storage/file_io.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

constexpr const char* kWorkingFolder = "zzz";

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

Store::Store(fs::path root, Timing timing) : root_(std::move(root)), timing_(timing) {
    fs::create_directories(root_);
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
    return fs::exists(objectPath(id));
}

void Store::putObject(const Object& object) {
    fs::path path = objectPath(object.id());
    fs::create_directories(path.parent_path());
    // Split after the header, so that a pack entry can reuse the data's compressed blocks.
    writeFileAtomically(path, zlibDeflateSplit(asBytes(looseHeader(object)), object.data()));
}

Object Store::getObject(const std::string& id) {
    return getObject(id, nullptr);
}

Object Store::getObject(const std::string& id, std::optional<Bytes>* dataStream) {
    fs::path path = objectPath(id);
    Bytes file = readFile(path);
    // A damaged file goes, so that the object is downloaded again (ObjectFetcher::readObject).
    auto corrupted = [&] {
        std::error_code ignored;
        fs::remove(path, ignored);
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
    touch(path);
    if (dataStream && split) *dataStream = std::move(split->bodyStream);
    return object;
}

void Store::placeObjectFile(const std::string& id, const fs::path& file) {
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

std::size_t Store::expire(Clock::time_point now) {
    auto limit = now - timing_.cacheExpirationInterval;
    std::size_t deleted = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root_, error), end; !error && it != end;
         it.increment(error)) {
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
    if (deleted > 0) {
        trace(TraceModule::info, "Deleted " + std::to_string(deleted) + " expired cache files");
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
