// AssetCache: the folder of local files that fetched assets point at. Stored contents live in
// the database; fetching one writes it here as a file named by its SHA-256, so every record that
// uses a content shares one file and a second fetch reuses it.
//
// Crash safety: a file is written under a temporary name, checked against its hash and size,
// and only then renamed to its content name, so a content name never holds other bytes, even
// when processes race to write the same content. A power cut can still leave a short file
// (the rename is not synced), which is why reuse checks the size. Files unused for a day are
// swept when a container opens; reusing a file refreshes its date so the sweep keeps it.
// Thread-safe: the folder is the only state, and every change to it is a rename or a removal.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string_view>

#include "base/bytes.h"

namespace corvane::cloud {

class AssetCache {
  public:
    static constexpr std::chrono::hours kUnusedLifetime{24};
    static constexpr std::chrono::hours kAbandonedWriteLifetime{1};

    explicit AssetCache(std::filesystem::path directory) : directory_(std::move(directory)) {}

    const std::filesystem::path& directory() const { return directory_; }
    std::filesystem::path pathFor(std::string_view hash) const { return directory_ / hash; }

    // True when the content's file is in place with the expected size; refreshes its date.
    bool holds(std::string_view hash, std::uint64_t size) const;

    // Writes a content's file from the pieces that `produce` passes to its sink. Throws CloudError
    // (code 1) when the pieces do not match hash and size, or the file cannot be written.
    using Sink = std::function<void(ByteView)>;
    void write(std::string_view hash, std::uint64_t size,
               const std::function<void(const Sink&)>& produce) const;

    // Removes files unused for kUnusedLifetime and temporary files of interrupted writes.
    void sweep() const;

  private:
    std::filesystem::path directory_;
};

}  // namespace corvane::cloud
