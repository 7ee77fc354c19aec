#include "storage/stored_pack_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "base/error.h"
#include "base/trace.h"
#include "storage/file_io.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

// Pieces still without their index after this long belong to a writer that is gone.
constexpr auto kAbandonedAge = std::chrono::hours(24);

fs::path dataPathOf(const fs::path& folder, const std::string& name) {
    return folder / (name + ".data");
}

fs::path indexPathOf(const fs::path& folder, const std::string& name) {
    return folder / (name + ".idx");
}

}  // namespace

CachedStoredPack::CachedStoredPack(const fs::path& folder, const std::string& name)
    : name_(name),
      dataPath_(dataPathOf(folder, name)),
      index_(readFile(indexPathOf(folder, name))) {
    fd_ = ::open(dataPath_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw Error(dataPath_.string() + ": " + std::strerror(errno));
    struct stat info {};
    if (::fstat(fd_, &info) != 0 || static_cast<std::uint64_t>(info.st_size) != index_.dataSize()) {
        ::close(fd_);
        throw Error("Damaged cached pack " + name + ": its data is not the size its index says");
    }
}

CachedStoredPack::~CachedStoredPack() {
    ::close(fd_);
}

std::filesystem::path CachedStoredPack::indexPath() const {
    return indexPathOf(dataPath_.parent_path(), name_);
}

Bytes CachedStoredPack::readEntry(const StoredPackEntry& entry) const {
    Bytes bytes(entry.length);
    std::size_t done = 0;
    while (done < bytes.size()) {
        auto got = ::pread(fd_, bytes.data() + done, bytes.size() - done,
                           static_cast<off_t>(entry.offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) throw CorruptedPack(name_, "its cached data is cut short");
        done += static_cast<std::size_t>(got);
    }
    checkEntry(name_, entry, bytes);
    return bytes;
}

void CachedStoredPack::noteUse() const {
    if (useNoteDue(lastUse_)) ::futimens(fd_, nullptr);
}

StoredPackCache::StoredPackCache(fs::path folder) : folder_(std::move(folder)) {}

std::shared_ptr<const CachedStoredPack> StoredPackCache::place(const std::string& name,
                                                               ByteView data, const Bytes& index) {
    if (!isStoredPackName(name)) throw Error("Not a stored pack's name: " + name);
    if (auto known = pack(name)) return known;
    fs::create_directories(folder_);  // made on first use, below the cache's private root
    StoredPackIndex checked(index);
    if (checked.dataSize() != data.size() || checked.dataHash() != sha1(data) ||
        "P" + hexString(checked.dataHash()) != name)
        throw Error("Corrupted pack " + name + ": its data is not the data its index describes");
    writeFileAtomically(dataPathOf(folder_, name), data);
    writeFileAtomically(indexPathOf(folder_, name), index);
    auto placed = std::make_shared<const CachedStoredPack>(folder_, name);
    std::unique_lock lock(mutex_);
    return packs_.try_emplace(name, placed).first->second;
}

std::shared_ptr<const CachedStoredPack> StoredPackCache::place(StoredPackBuilder::Built built) {
    if (built.dataFile.empty()) return place(built.name, built.data, built.index);
    struct Leftover {
        const fs::path& path;
        ~Leftover() {
            std::error_code ignored;
            fs::remove(path, ignored);
        }
    } leftover{built.dataFile};
    if (auto known = pack(built.name)) return known;
    fs::create_directories(folder_);
    // The builder hashed the data as it wrote it; its entries are checked whenever read.
    StoredPackIndex checked(built.index);
    if (checked.dataSize() != fs::file_size(built.dataFile) ||
        "P" + hexString(checked.dataHash()) != built.name)
        throw Error("Corrupted pack " + built.name +
                    ": its data is not the data its index describes");
    fs::rename(built.dataFile, dataPathOf(folder_, built.name));
    writeFileAtomically(indexPathOf(folder_, built.name), built.index);
    auto placed = std::make_shared<const CachedStoredPack>(folder_, built.name);
    std::unique_lock lock(mutex_);
    return packs_.try_emplace(built.name, placed).first->second;
}

std::shared_ptr<const CachedStoredPack> StoredPackCache::pack(const std::string& name) const {
    {
        std::shared_lock lock(mutex_);
        auto found = packs_.find(name);
        if (found != packs_.end()) return found->second;
    }
    loadNew();
    std::shared_lock lock(mutex_);
    auto found = packs_.find(name);
    return found == packs_.end() ? nullptr : found->second;
}

std::optional<StoredPackCache::Found> StoredPackCache::find(const Digest& id) const {
    auto search = [&]() -> std::optional<Found> {
        std::shared_lock lock(mutex_);
        for (const auto& [name, pack] : packs_) {
            if (auto entry = pack->index().find(id)) return Found{pack, *entry};
        }
        return std::nullopt;
    };
    if (auto found = search()) return found;
    loadNew();
    return search();
}

void StoredPackCache::loadNew() const {
    std::error_code error;
    auto folderTime = fs::last_write_time(folder_, error);
    if (error) return;
    // A folder time can stay the same across changes close together; one that has stood for a
    // while since the last look means nothing came.
    auto unchanged = [&] {
        return folderTime == folderTime_ && folderTime_ < scanTime_ - std::chrono::seconds(1);
    };
    {
        std::shared_lock lock(mutex_);
        if (unchanged()) return;
    }
    std::vector<std::string> names;
    for (fs::directory_iterator it(folder_, error), end; !error && it != end; it.increment(error)) {
        if (it->path().extension() == ".idx") names.push_back(it->path().stem().string());
    }
    std::unique_lock lock(mutex_);
    folderTime_ = folderTime;
    scanTime_ = fs::file_time_type::clock::now();
    for (const auto& name : names) {
        if (!isStoredPackName(name) || packs_.contains(name)) continue;
        try {
            packs_.emplace(name, std::make_shared<const CachedStoredPack>(folder_, name));
        } catch (const Error& failure) {
            // Its objects count as absent, and are downloaded again when wanted.
            trace(TraceModule::error, failure.what());
        }
    }
}

void StoredPackCache::discard(const std::string& name) {
    {
        std::unique_lock lock(mutex_);
        packs_.erase(name);
    }
    std::error_code ignored;
    fs::remove(indexPathOf(folder_, name), ignored);
    fs::remove(dataPathOf(folder_, name), ignored);
}

std::size_t StoredPackCache::expire(std::chrono::system_clock::time_point limit) {
    auto abandoned = std::chrono::system_clock::now() - kAbandonedAge;
    std::vector<std::string> expired;
    std::size_t removed = 0;
    std::error_code error;
    for (fs::directory_iterator it(folder_, error), end; !error && it != end; it.increment(error)) {
        const auto& path = it->path();
        if (path.extension() != ".data") continue;
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) continue;
        auto lastUse = std::chrono::system_clock::from_time_t(info.st_mtim.tv_sec);
        auto name = path.stem().string();
        bool whole = fs::exists(indexPathOf(folder_, name));
        if (lastUse >= (whole ? limit : abandoned)) continue;
        std::error_code ignored;
        // The index first: without it nobody finds the pack any more.
        if (fs::remove(indexPathOf(folder_, name), ignored)) ++removed;
        if (fs::remove(path, ignored)) ++removed;
        expired.push_back(name);
    }
    if (!expired.empty()) {
        std::unique_lock lock(mutex_);
        for (const auto& name : expired)
            packs_.erase(name);
    }
    return removed;
}

}  // namespace corvane
