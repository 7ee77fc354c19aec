// Reading the bytes an asset names: its whole file, or its byte range of a file that holds many.
// Used where a save hashes and stores assets; one reader per thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/bytes.h"
#include "cloud/record.h"

namespace corvane::cloud {

class AssetFileReader {
  public:
    // Throws CloudError 16 when the file cannot be opened, or holds less than the range.
    explicit AssetFileReader(const Asset& asset);
    ~AssetFileReader();
    AssetFileReader(const AssetFileReader&) = delete;
    AssetFileReader& operator=(const AssetFileReader&) = delete;

    // Fills up to `capacity` bytes from where the last read stopped; 0 at the end of the asset.
    // Throws CloudError 16 on a read error.
    std::size_t read(std::uint8_t* buffer, std::size_t capacity);
    // Reads until `capacity` bytes are in or the asset ends; fewer only at its end.
    std::size_t fill(std::uint8_t* buffer, std::size_t capacity);

    // The file, and the range when there is one, for messages.
    const std::string& description() const { return description_; }

  private:
    int fd_ = -1;
    std::string description_;
    std::uint64_t position_ = 0;
    std::optional<std::uint64_t> end_;  // the range's end; none: to the end of the file
};

struct FileDigest {
    std::string hash;  // SHA-256, 64 lowercase hexadecimal digits
    std::uint64_t size = 0;
    // The bytes that were hashed, when kept: storing them then needs no second read of a file
    // that may have changed since.
    std::shared_ptr<const Bytes> contents;
};

// Reads the asset's bytes once, keeping them when there are at most `keepUpTo`. Throws CloudError
// 16 when they cannot be read.
FileDigest digestAsset(const Asset& asset, std::uint64_t keepUpTo = 0);

}  // namespace corvane::cloud
