#include "storage/cache_pack.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include "base/big_endian.h"
#include "base/error.h"
#include "storage/file_io.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

constexpr char kMagic[4] = {'C', 'V', 'P', 'I'};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kEntrySize = 20 + 8 + 8;

std::string systemError(const fs::path& path) {
    return path.string() + ": " + std::strerror(errno);
}

std::string randomName() {
    std::random_device device;
    std::array<std::uint8_t, 8> bytes{};
    for (auto& byte : bytes)
        byte = static_cast<std::uint8_t>(device());
    return hexString(bytes);
}

Bytes readRange(int fd, const CachePackEntry& entry, const fs::path& path) {
    Bytes bytes(static_cast<std::size_t>(entry.length));
    std::size_t done = 0;
    while (done < bytes.size()) {
        auto count = ::pread(fd, bytes.data() + done, bytes.size() - done,
                             static_cast<off_t>(entry.offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw Error(systemError(path));
        if (count == 0) break;  // cut short: what was read fails the object's check
        done += static_cast<std::size_t>(count);
    }
    bytes.resize(done);
    return bytes;
}

}  // namespace

fs::path packPathFor(const fs::path& indexPath) {
    return fs::path(indexPath).replace_extension(".pack");
}

fs::path indexPathFor(const fs::path& packPath) {
    return fs::path(packPath).replace_extension(".idx");
}

CachePackWriter::CachePackWriter(const fs::path& folder) {
    fs::create_directories(folder);
    for (;;) {
        path_ = folder / (randomName() + ".pack");
        fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode);
        if (fd_ >= 0) break;
        if (errno != EEXIST) throw Error(systemError(path_));
    }
}

CachePackWriter::~CachePackWriter() {
    ::close(fd_);
}

void CachePackWriter::append(const Digest& id, ByteView file) {
    // Each writer owns the range it reserved, so appends from several threads need no lock.
    std::uint64_t offset = end_.fetch_add(file.size());
    std::size_t done = 0;
    while (done < file.size()) {
        auto count = ::pwrite(fd_, file.data() + done, file.size() - done,
                              static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw Error(systemError(path_));
        done += static_cast<std::size_t>(count);
    }
    std::lock_guard lock(mutex_);
    entries_.emplace(id, CachePackEntry{offset, file.size()});
}

std::optional<CachePackEntry> CachePackWriter::find(const Digest& id) const {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(id);
    if (found == entries_.end()) return std::nullopt;
    return found->second;
}

Bytes CachePackWriter::read(const CachePackEntry& entry) const {
    return readRange(fd_, entry, path_);
}

fs::path CachePackWriter::seal() {
    std::vector<std::pair<Digest, CachePackEntry>> sorted;
    {
        std::lock_guard lock(mutex_);
        sorted.assign(entries_.begin(), entries_.end());
    }
    std::sort(sorted.begin(), sorted.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    Bytes index(kMagic, kMagic + sizeof kMagic);
    index.reserve(kHeaderSize + sorted.size() * kEntrySize);
    putBigEndian(index, kVersion, 4);
    putBigEndian(index, sorted.size(), 4);
    for (const auto& [id, entry] : sorted) {
        index.insert(index.end(), id.begin(), id.end());
        putBigEndian(index, entry.offset, 8);
        putBigEndian(index, entry.length, 8);
    }
    // A sweep may have taken a pack that stood unfinished for long: its index would name nothing.
    struct stat info {};
    if (::fstat(fd_, &info) != 0 || info.st_nlink == 0)
        throw Error("The cache pack " + path_.string() + " was removed while it was written");
    auto indexPath = indexPathFor(path_);
    writeFileAtomically(indexPath, index);
    return indexPath;
}

void CachePackWriter::abandon() {
    std::error_code ignored;
    fs::remove(indexPathFor(path_), ignored);
    fs::remove(path_, ignored);
}

CachePackIndex::CachePackIndex(const fs::path& indexPath)
    : indexPath_(indexPath), packPath_(packPathFor(indexPath)) {
    int indexFd = ::open(indexPath_.c_str(), O_RDONLY | O_CLOEXEC);
    if (indexFd < 0) throw Error(systemError(indexPath_));
    struct stat info {};
    if (::fstat(indexFd, &info) != 0) {
        ::close(indexFd);
        throw Error(systemError(indexPath_));
    }
    mapSize_ = static_cast<std::size_t>(info.st_size);
    void* map =
        mapSize_ == 0 ? MAP_FAILED : ::mmap(nullptr, mapSize_, PROT_READ, MAP_SHARED, indexFd, 0);
    ::close(indexFd);  // the mapping stays
    if (map == MAP_FAILED) throw Error("Damaged cache pack index " + indexPath_.string());
    map_ = static_cast<const std::uint8_t*>(map);
    bool valid = mapSize_ >= kHeaderSize && std::memcmp(map_, kMagic, sizeof kMagic) == 0 &&
                 readBigEndian(map_ + 4, 4) == kVersion;
    if (valid) {
        count_ = static_cast<std::size_t>(readBigEndian(map_ + 8, 4));
        valid = mapSize_ == kHeaderSize + count_ * kEntrySize;
    }
    if (valid) packFd_ = ::open(packPath_.c_str(), O_RDONLY | O_CLOEXEC);
    if (!valid || packFd_ < 0) {
        ::munmap(const_cast<std::uint8_t*>(map_), mapSize_);
        throw Error(valid ? systemError(packPath_)
                          : "Damaged cache pack index " + indexPath_.string());
    }
}

CachePackIndex::~CachePackIndex() {
    ::munmap(const_cast<std::uint8_t*>(map_), mapSize_);
    ::close(packFd_);
}

std::optional<CachePackEntry> CachePackIndex::find(const Digest& id) const {
    std::size_t low = 0;
    std::size_t high = count_;
    while (low < high) {
        std::size_t middle = low + (high - low) / 2;
        const std::uint8_t* entry = map_ + kHeaderSize + middle * kEntrySize;
        int order = std::memcmp(entry, id.data(), id.size());
        if (order == 0)
            return CachePackEntry{readBigEndian(entry + 20, 8), readBigEndian(entry + 28, 8)};
        if (order < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return std::nullopt;
}

Bytes CachePackIndex::read(const CachePackEntry& entry) const {
    return readRange(packFd_, entry, packPath_);
}

void CachePackIndex::noteUse() const {
    if (useNoteDue(lastUse_)) ::futimens(packFd_, nullptr);
}

}  // namespace corvane
