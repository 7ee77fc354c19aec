#include "cloud/asset_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/error.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"

namespace corvane::cloud {

AssetFileReader::AssetFileReader(const Asset& asset) {
    if (!asset.fileURL) throw CloudError(kAssetFileNotFound, "An asset has no file");
    description_ = asset.fileURL->string();
    if (asset.range) {
        description_ += " (bytes " + std::to_string(asset.range->offset) + " to " +
                        std::to_string(asset.range->offset + asset.range->length) + ")";
    }
    fd_ = ::open(asset.fileURL->c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        throw CloudError(kAssetFileNotFound, "Cannot read the asset file " + description_ + ": " +
                                                 std::strerror(errno));
    }
    if (asset.range) {
        struct stat info {};
        if (::fstat(fd_, &info) != 0 ||
            static_cast<std::uint64_t>(info.st_size) < asset.range->offset + asset.range->length) {
            ::close(fd_);
            throw CloudError(kAssetFileNotFound, "Cannot read the asset file " + description_ +
                                                     ": the file is shorter");
        }
        position_ = asset.range->offset;
        end_ = asset.range->offset + asset.range->length;
    }
}

AssetFileReader::~AssetFileReader() {
    ::close(fd_);
}

std::size_t AssetFileReader::fill(std::uint8_t* buffer, std::size_t capacity) {
    std::size_t filled = 0;
    while (filled < capacity) {
        auto count = read(buffer + filled, capacity - filled);
        if (count == 0) break;
        filled += count;
    }
    return filled;
}

std::size_t AssetFileReader::read(std::uint8_t* buffer, std::size_t capacity) {
    if (end_)
        capacity = static_cast<std::size_t>(std::min<std::uint64_t>(capacity, *end_ - position_));
    for (;;) {
        if (capacity == 0) return 0;
        auto count = ::pread(fd_, buffer, capacity, static_cast<off_t>(position_));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            throw CloudError(kAssetFileNotFound, "Cannot read the asset file " + description_ +
                                                     ": " + std::strerror(errno));
        }
        position_ += static_cast<std::uint64_t>(count);
        return static_cast<std::size_t>(count);
    }
}

FileDigest digestAsset(const Asset& asset, std::uint64_t keepUpTo) {
    AssetFileReader reader(asset);
    Sha256 sha;
    FileDigest digest;
    constexpr std::size_t kBufferSize = 1 << 16;
    auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(kBufferSize);
    auto kept = std::make_shared<Bytes>();
    while (auto count = reader.read(buffer.get(), kBufferSize)) {
        ByteView piece(buffer.get(), count);
        sha.update(piece);
        digest.size += piece.size();
        if (kept && digest.size <= keepUpTo) {
            kept->insert(kept->end(), piece.begin(), piece.end());
        } else {
            kept.reset();
        }
    }
    digest.hash = sha.finishHex();
    digest.contents = std::move(kept);
    return digest;
}

}  // namespace corvane::cloud
