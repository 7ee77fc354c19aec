#include "storage/store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/error.h"
#include "base/queues.h"
#include "base/trace.h"
#include "objects/sha1.h"
#include "objects/zlib.h"
#include "storage/file_io.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

constexpr const char* kWorkingFolder = "zzz";

// Loose-object layout: "<type name> <decimal size>\0<data>", zlib-compressed.
Bytes looseObject(const Object& object) {
    std::string header(typeName(object.type()));
    header += ' ';
    header += std::to_string(object.data().size());
    header += '\0';
    Bytes content;
    content.reserve(header.size() + object.data().size());
    content.insert(content.end(), header.begin(), header.end());
    content.insert(content.end(), object.data().begin(), object.data().end());
    return content;
}

std::optional<ObjectType> typeFromHeaderName(std::string_view name) {
    if (name == "error") return ObjectType::error;
    return objectTypeFromName(name);
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
    writeFileAtomically(path, zlibDeflate(looseObject(object)));
    remember(object);
}

Object Store::getObject(const std::string& id) {
    fs::path path = objectPath(id);
    Bytes content = zlibInflate(readFile(path));
    if (hexString(sha1(content)) != id) {
        std::error_code ignored;
        fs::remove(path, ignored);
        throw Error("Corrupted cache file for object " + id);
    }
    touch(path);
    auto failure = [&] { return Error("Failed to decode object " + id); };
    std::string_view text = asText(content);
    auto space = text.find(' ');
    auto nul = text.find('\0');
    if (space == std::string_view::npos || nul == std::string_view::npos || nul < space) {
        throw failure();
    }
    auto type = typeFromHeaderName(text.substr(0, space));
    auto length = text.substr(space + 1, nul - space - 1);
    if (!type || length.empty() ||
        length.find_first_not_of("0123456789") != std::string_view::npos) {
        throw failure();
    }
    Object object(*type,
                  Bytes(content.begin() + static_cast<std::ptrdiff_t>(nul) + 1, content.end()));
    remember(object);
    return object;
}

void Store::placeObjectFile(const std::string& id, const fs::path& file) {
    fs::path path = objectPath(id);
    fs::create_directories(path.parent_path());
    copyFileIfAbsent(file, path);
    getObject(id);
}

fs::path Store::workingFile(const std::string& name) const {
    std::error_code ignored;
    fs::create_directories(root_ / kWorkingFolder, ignored);
    return root_ / kWorkingFolder / name;
}

void Store::remember(const Object& object) {
    const std::string& id = object.id();
    switch (object.type()) {
        case ObjectType::commit:
            if (!commits.get(id)) commits.set(id, parseCommit(object));
            break;
        case ObjectType::tree:
            if (!trees.get(id)) trees.set(id, parseTree(object));
            break;
        case ObjectType::tag:
            if (!tags.get(id)) tags.set(id, parseTag(object));
            break;
        case ObjectType::blob:
            blobs.set(id, static_cast<std::int64_t>(object.data().size()));
            break;
        default:
            break;
    }
}

std::size_t Store::expire(Clock::time_point now) {
    // Objects held in memory stay: their files count as used now.
    auto refresh = [&](const auto& map) {
        for (const auto& [id, value] : map.values()) {
            fs::path path = objectPath(id);
            if (fs::exists(path)) touch(path);
        }
    };
    refresh(tags);
    refresh(commits);
    refresh(trees);

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
