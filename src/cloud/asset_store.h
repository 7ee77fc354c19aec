// AssetStore: the stored contents in the database. Stores a file's bytes once per content (its
// SHA-256), writes contents out to the asset cache for fetched records, and deletes contents that
// no record uses any more. Works inside the caller's transaction, on the caller's connection and
// thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <set>
#include <string>

#include "base/error.h"
#include "cloud/asset_cache.h"
#include "cloud/asset_file.h"
#include "cloud/connection.h"
#include "cloud/field_codec.h"
#include "cloud/storage_usage.h"

namespace corvane::cloud {

class AssetStore {
  public:
    // Contents are stored in pieces, so no file is ever held in memory whole.
    static constexpr std::size_t kChunkSize = 1 << 20;

    explicit AssetStore(Connection& connection) : connection_(connection) {}

    // Stores the asset's bytes as the content `digest` unless that content is stored already:
    // the bytes the digest kept, else the file's. Returns the record's error when the file
    // cannot be read (16) or no longer matches the digest taken before (17); the caller then
    // rolls back what was written.
    std::optional<CloudError> store(const Asset& asset, const FileDigest& digest);

    // Makes sure the content's file is in the cache. Throws CloudError 1 when the stored bytes
    // are damaged or the file cannot be written.
    void writeToCache(const StoredAsset& asset, const AssetCache& cache);

    // Deletes those of the contents that no record uses.
    void collect(const std::set<std::string>& hashes);

    StorageUsage usage();

  private:
    Connection& connection_;
};

}  // namespace corvane::cloud
