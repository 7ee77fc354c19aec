#include "cloud/asset_store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "cloud/asset_file.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"

namespace corvane::cloud {

std::optional<CloudError> AssetStore::store(const Asset& asset, const FileDigest& digest) {
    if (queryInteger(connection_, "SELECT size FROM assets WHERE hash = ?", {digest.hash}))
        return std::nullopt;
    auto insertChunk = [&](std::int64_t seq, ByteView piece) {
        connection_.execute("INSERT INTO asset_chunks (hash, seq, data) VALUES (?, ?, ?)",
                            {digest.hash, seq, piece});
    };
    auto insertAsset = [&] {
        connection_.execute("INSERT INTO assets (hash, size) VALUES (?, ?)",
                            {digest.hash, static_cast<std::int64_t>(digest.size)});
        return std::nullopt;
    };
    if (digest.contents) {
        ByteView bytes(*digest.contents);
        for (std::int64_t seq = 0; !bytes.empty(); ++seq) {
            insertChunk(seq, bytes.first(std::min(kChunkSize, bytes.size())));
            bytes = bytes.subspan(std::min(kChunkSize, bytes.size()));
        }
        return insertAsset();
    }

    try {
        AssetFileReader reader(asset);
        // The bytes are hashed again as they are stored: the file may have changed since it was
        // first read, and a content must never be stored under another content's name.
        Sha256 sha;
        // One byte more than the digest counted lets a file that grew show itself.
        auto capacity =
            static_cast<std::size_t>(std::min<std::uint64_t>(kChunkSize, digest.size + 1));
        auto chunk = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
        std::uint64_t total = 0;
        for (std::int64_t seq = 0;; ++seq) {
            std::size_t filled = reader.fill(chunk.get(), capacity);
            if (filled == 0) break;
            ByteView piece(chunk.get(), filled);
            sha.update(piece);
            total += filled;
            insertChunk(seq, piece);
            if (filled < capacity) break;
        }
        if (total != digest.size || sha.finishHex() != digest.hash)
            return CloudError(kAssetFileModified, "The asset file " + reader.description() +
                                                      " changed while it was saved");
    } catch (const CloudError& error) {
        return error;
    }
    return insertAsset();
}

void AssetStore::writeToCache(const StoredAsset& asset, const AssetCache& cache) {
    if (cache.holds(asset.hash, asset.size)) return;
    cache.write(asset.hash, asset.size, [&](const AssetCache::Sink& sink) {
        connection_.execute("SELECT data FROM asset_chunks WHERE hash = ? ORDER BY seq",
                            {asset.hash}, [&](const SqlRow& row) { sink(row.blob(0)); });
    });
}

void AssetStore::collect(const std::set<std::string>& hashes) {
    for (const auto& hash : hashes) {
        auto removed = connection_.execute(
            "DELETE FROM assets WHERE hash = ? AND NOT EXISTS "
            "(SELECT 1 FROM asset_refs WHERE asset_refs.hash = ?)",
            {hash, hash});
        if (removed) connection_.execute("DELETE FROM asset_chunks WHERE hash = ?", {hash});
    }
}

StorageUsage AssetStore::usage() {
    StorageUsage usage;
    connection_.execute("SELECT COUNT(*), CAST(SUM(size) AS BIGINT) FROM assets", {},
                        [&](const SqlRow& row) {
                            usage.assetCount = row.integer(0);
                            usage.assetBytes = row.integer(1);
                        });
    return usage;
}

}  // namespace corvane::cloud
