#include "cloud/team_records.h"

#include <algorithm>
#include <map>
#include <set>

#include "cloud/asset_file.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"
#include "cloud/field_codec.h"
#include "cloud/record_reader.h"
#include "cloud/share_json.h"

namespace corvane::cloud {
namespace {

// Contents are stored and read in pieces of this size, at most this many bytes to a call.
constexpr std::size_t kPieceSize = 1 << 20;
constexpr std::size_t kBytesPerCall = 8 << 20;

std::int64_t scopeNumber(DatabaseScope scope) {
    return static_cast<std::int64_t>(scope);
}

// Writes the contents to the cache that it does not hold yet, a batch of them per call.
void readContents(Connection& connection, const AssetCache& cache, DatabaseScope scope,
                  const ZoneId& zoneId, const std::optional<std::string>& token,
                  const std::map<std::string, std::uint64_t>& sizes) {
    std::vector<std::string> batch;
    std::uint64_t batchBytes = 0;
    SqlParam tokenParam = token ? SqlParam(std::string_view(*token)) : std::monostate{};
    auto flush = [&] {
        if (batch.empty()) return;
        std::map<std::string, Bytes, std::less<>> bytes;
        connection.execute(
            "SELECT hash, data FROM corvane.read_contents(?, ?, ?, ?, ?)",
            {scopeNumber(scope), zoneId.ownerName, zoneId.zoneName, tokenParam, TextList(batch)},
            [&](const SqlRow& row) {
                auto piece = row.blob(1);
                auto& content = bytes[std::string(row.text(0))];
                content.insert(content.end(), piece.begin(), piece.end());
            });
        for (const auto& hash : batch) {
            // A content the zone lacks is written empty, and the cache refuses it by its hash.
            auto& content = bytes[hash];
            cache.write(hash, sizes.at(hash), [&](const AssetCache::Sink& sink) { sink(content); });
        }
        batch.clear();
        batchBytes = 0;
    };
    for (const auto& [hash, size] : sizes) {
        if (cache.holds(hash, size)) continue;
        if (!batch.empty() && batchBytes + size > kBytesPerCall) flush();
        batch.push_back(hash);
        batchBytes += size;
    }
    flush();
}

// Pieces of contents on their way to one zone, sent a call's worth at a time.
class ContentUpload {
  public:
    ContentUpload(Connection& connection, DatabaseScope scope, const ZoneId& zoneId)
        : connection_(connection), scope_(scope), zoneId_(zoneId) {}

    // Sends the asset's bytes as the content `digest`; false when the file no longer holds
    // them (code 17 for the records that use it).
    bool add(const Asset& asset, const FileDigest& digest) {
        if (digest.contents) {
            ByteView bytes(*digest.contents);
            std::int64_t seq = 0;
            do {
                auto size = std::min(kPieceSize, bytes.size());
                addPiece(digest, seq++, bytes.first(size));
                bytes = bytes.subspan(size);
            } while (!bytes.empty());
            return true;
        }
        AssetFileReader reader(asset);
        Sha256 sha;
        std::uint64_t total = 0;
        // One byte more than the digest counted lets a file that grew show itself.
        auto capacity =
            static_cast<std::size_t>(std::min<std::uint64_t>(kPieceSize, digest.size + 1));
        // The piece read last goes once more follows or the bytes proved to be the content, so
        // that a changed file never completes a content on the server.
        Bytes held;
        std::int64_t seq = 0;
        bool holding = false;
        for (;;) {
            Bytes piece(capacity);
            std::size_t filled = reader.fill(piece.data(), capacity);
            if (filled == 0) break;
            piece.resize(filled);
            sha.update(piece);
            total += filled;
            if (total > digest.size) return false;
            if (holding) addPiece(digest, seq++, held);
            held = std::move(piece);
            holding = true;
            if (filled < capacity) break;
        }
        if (total != digest.size || sha.finishHex() != digest.hash) return false;
        addPiece(digest, seq, held);
        return true;
    }

    void finish() { flush(); }

  private:
    void addPiece(const FileDigest& digest, std::int64_t seq, ByteView piece) {
        if (bytes_ + piece.size() > kBytesPerCall) flush();
        hashes_.push_back(digest.hash);
        sizes_.push_back(static_cast<std::int64_t>(digest.size));
        seqs_.push_back(seq);
        pieces_.emplace_back(piece.begin(), piece.end());
        bytes_ += piece.size();
    }

    void flush() {
        if (hashes_.empty()) return;
        std::vector<ByteView> views(pieces_.begin(), pieces_.end());
        connection_.execute(
            "SELECT corvane.store_contents(?, ?, ?, ?, ?, ?, ?)",
            {scopeNumber(scope_), zoneId_.ownerName, zoneId_.zoneName, TextList(hashes_),
             IntegerList(sizes_), IntegerList(seqs_), BlobList(views)});
        hashes_.clear();
        sizes_.clear();
        seqs_.clear();
        pieces_.clear();
        bytes_ = 0;
    }

    Connection& connection_;
    DatabaseScope scope_;
    const ZoneId& zoneId_;
    std::vector<std::string> hashes_;
    std::vector<std::int64_t> sizes_;
    std::vector<std::int64_t> seqs_;
    std::vector<Bytes> pieces_;
    std::size_t bytes_ = 0;
};

// A failure that belongs to the records, not to the engine.
bool isRecordFailure(const CloudError& error) {
    int code = error.code();
    return code == kPermissionFailure || code == kUnknownItem || code == kInvalidArguments ||
           code == kAssetFileNotFound || code == kAssetFileModified;
}

class ZoneSave {
  public:
    ZoneSave(Connection& connection, DatabaseScope scope, const ZoneId& zoneId,
             std::vector<PreparedRecord>& prepared, SavePolicy policy, bool atomic)
        : connection_(connection),
          scope_(scope),
          zoneId_(zoneId),
          prepared_(prepared),
          policy_(policy),
          atomic_(atomic) {}

    // Saves the members; each gets an outcome, or an error in prepared (the caller's failAll
    // when atomic). False when an atomic save must stop.
    bool save(std::vector<std::size_t> members, std::vector<std::optional<SaveOutcome>>& outcomes);

  private:
    // The hash of a content whose file changed, or none once every content is stored.
    std::optional<std::string> upload(const std::vector<std::size_t>& members);
    void saveRecords(const std::vector<std::size_t>& members,
                     std::vector<std::optional<SaveOutcome>>& outcomes);

    Connection& connection_;
    DatabaseScope scope_;
    const ZoneId& zoneId_;
    std::vector<PreparedRecord>& prepared_;
    SavePolicy policy_;
    bool atomic_;
};

std::optional<std::string> ZoneSave::upload(const std::vector<std::size_t>& members) {
    std::map<std::string, const std::pair<Asset, FileDigest>*> contents;
    for (auto i : members) {
        for (const auto& [key, digested] : prepared_[i].digests)
            contents.emplace(digested.second.hash, &digested);
    }
    std::vector<std::string> hashes;
    for (const auto& [hash, digested] : contents)
        hashes.push_back(hash);
    std::vector<std::string> missing;
    connection_.execute(
        "SELECT * FROM corvane.missing_contents(?, ?, ?, ?)",
        {scopeNumber(scope_), zoneId_.ownerName, zoneId_.zoneName, TextList(hashes)},
        [&](const SqlRow& row) { missing.emplace_back(row.text(0)); });
    ContentUpload upload(connection_, scope_, zoneId_);
    for (const auto& hash : missing) {
        const auto& [asset, digest] = *contents.at(hash);
        if (!upload.add(asset, digest)) return hash;
    }
    upload.finish();
    return std::nullopt;
}

void ZoneSave::saveRecords(const std::vector<std::size_t>& members,
                           std::vector<std::optional<SaveOutcome>>& outcomes) {
    std::vector<std::string> names, types, parents, tags, useHashes;
    std::vector<Bytes> fields;
    std::vector<std::int64_t> useRecords;
    std::vector<const Record*> shares;
    std::map<std::string, std::size_t> byName;
    for (auto i : members) {
        const auto& item = prepared_[i];
        const auto& record = *item.record;
        byName[record.recordId.recordName] = i;
        names.push_back(record.recordId.recordName);
        types.push_back(record.recordType);
        parents.push_back(record.parent ? record.parent->recordId.recordName : "");
        tags.push_back(record.recordChangeTag.value_or(""));
        fields.push_back(encodeFields(record.fields, [&](const Asset& asset) {
            const auto& digest = item.digests.at(assetKey(asset)).second;
            return StoredAsset{digest.hash, digest.size};
        }));
        for (const auto& [key, digested] : item.digests) {
            useRecords.push_back(static_cast<std::int64_t>(names.size()));
            useHashes.push_back(digested.second.hash);
        }
        if (record.share) shares.push_back(&record);
    }
    std::vector<ByteView> fieldViews(fields.begin(), fields.end());
    auto sharesText = sharesToJson(shares);
    connection_.execute(
        "SELECT name, code, message, change_tag, created, modified, share FROM "
        "corvane.save_records(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, CAST(? AS JSON))",
        {scopeNumber(scope_), zoneId_.ownerName, zoneId_.zoneName,
         std::int64_t{policy_ == SavePolicy::ifServerRecordUnchanged ? 0 : 2},
         std::int64_t{atomic_ ? 1 : 0}, TextList(names), TextList(types), TextList(parents),
         BlobList(fieldViews), TextList(tags), IntegerList(useRecords), TextList(useHashes),
         std::string_view(sharesText)},
        [&](const SqlRow& row) {
            auto it = byName.find(std::string(row.text(0)));
            if (it == byName.end()) return;
            auto i = it->second;
            const auto& record = *prepared_[i].record;
            if (row.integer(1) != 0) {
                prepared_[i].error =
                    CloudError(static_cast<int>(row.integer(1)), std::string(row.text(2)));
                outcomes[i] = SaveOutcome{record.recordId, std::nullopt, prepared_[i].error};
                return;
            }
            Record saved = record;
            saved.recordChangeTag = std::string(row.text(3));
            saved.creationDate = dateFromMilliseconds(row.integer(4));
            saved.modificationDate = dateFromMilliseconds(row.integer(5));
            if (!row.isNull(6)) saved.share = shareFromJson(row.text(6));
            outcomes[i] = SaveOutcome{record.recordId, std::move(saved), std::nullopt};
        });
}

bool ZoneSave::save(std::vector<std::size_t> members,
                    std::vector<std::optional<SaveOutcome>>& outcomes) {
    while (!members.empty()) {
        connection_.execute("SAVEPOINT zone_save");
        try {
            if (auto changed = upload(members)) {
                // Records that use the changed file are refused; the others are tried again.
                connection_.execute("ROLLBACK TO SAVEPOINT zone_save");
                std::erase_if(members, [&](std::size_t i) {
                    for (const auto& [key, digested] : prepared_[i].digests) {
                        if (digested.second.hash != *changed) continue;
                        prepared_[i].error = CloudError(
                            kAssetFileModified, "The asset file " + key.substr(0, key.find('\0')) +
                                                    " changed while it was saved");
                        outcomes[i] = SaveOutcome{prepared_[i].record->recordId, std::nullopt,
                                                  prepared_[i].error};
                        return true;
                    }
                    return false;
                });
                if (atomic_) return false;
                continue;
            }
            saveRecords(members, outcomes);
        } catch (const CloudError& error) {
            if (!isRecordFailure(error)) throw;
            connection_.execute("ROLLBACK TO SAVEPOINT zone_save");
            for (auto i : members) {
                prepared_[i].error = error;
                outcomes[i] = SaveOutcome{prepared_[i].record->recordId, std::nullopt, error};
            }
        }
        connection_.execute("RELEASE SAVEPOINT zone_save");
        if (atomic_) {
            for (auto i : members) {
                if (prepared_[i].error) return false;
            }
        }
        return true;
    }
    return true;
}

}  // namespace

std::vector<FetchResult> readTeamRecords(Connection& connection, const AssetCache& cache,
                                         DatabaseScope scope, const ZoneId& zoneId,
                                         const std::optional<std::string>& token,
                                         std::span<const std::string> names) {
    if (names.empty()) return {};
    SqlParam tokenParam = token ? SqlParam(std::string_view(*token)) : std::monostate{};
    std::vector<std::string> nameList(names.begin(), names.end());
    std::map<std::string, StoredRecordRow, std::less<>> rows;
    bool zoneReached = true;
    connection.execute(
        "SELECT name, type, parent, fields, change_tag, created, modified, share FROM "
        "corvane.fetch_records(?, ?, ?, ?, ?)",
        {scopeNumber(scope), zoneId.ownerName, zoneId.zoneName, tokenParam, TextList(nameList)},
        [&](const SqlRow& sqlRow) {
            if (sqlRow.isNull(0)) {
                zoneReached = false;
                return;
            }
            auto row = recordFromRow(sqlRow, zoneId, cache);
            if (!sqlRow.isNull(7) && !row.error) {
                try {
                    row.record.share = shareFromJson(sqlRow.text(7));
                } catch (const CloudError& error) {
                    row.error = error;
                }
            }
            rows.insert_or_assign(std::string(sqlRow.text(0)), std::move(row));
        });
    if (!zoneReached) {
        std::vector<FetchResult> results;
        for (const auto& name : names) {
            results.push_back(FetchResult{
                RecordId{name, zoneId}, std::nullopt,
                CloudError(kUnknownItem, "Record zone " + zoneId.zoneName + " does not exist")});
        }
        return results;
    }

    std::map<std::string, std::uint64_t> sizes;
    for (const auto& [name, row] : rows) {
        if (row.error) continue;
        for (const auto& asset : row.assets)
            sizes.emplace(asset.hash, asset.size);
    }
    try {
        readContents(connection, cache, scope, zoneId, token, sizes);
    } catch (const CloudError& error) {
        // A record whose content cannot be written out fails alone, as on the embedded store.
        if (error.code() != kInternalError) throw;
        for (auto& [name, row] : rows) {
            for (const auto& asset : row.assets) {
                if (!row.error && !cache.holds(asset.hash, asset.size)) row.error = error;
            }
        }
    }
    return resultsByName(rows, zoneId, names);
}

std::vector<SaveOutcome> saveTeamRecords(Connection& connection, DatabaseScope scope,
                                         std::vector<PreparedRecord>& prepared, SavePolicy policy,
                                         bool atomic) {
    std::vector<std::optional<SaveOutcome>> outcomes(prepared.size());
    std::vector<std::pair<ZoneId, std::vector<std::size_t>>> zones;
    for (std::size_t i = 0; i < prepared.size(); ++i) {
        const auto& item = prepared[i];
        if (item.error) {
            outcomes[i] = SaveOutcome{item.record->recordId, std::nullopt, item.error};
            continue;
        }
        const auto& zoneId = item.record->recordId.zoneId;
        auto it = std::find_if(zones.begin(), zones.end(),
                               [&](const auto& zone) { return zone.first == zoneId; });
        if (it == zones.end()) it = zones.insert(zones.end(), {zoneId, {}});
        it->second.push_back(i);
    }
    // Zones are locked in one order by every writer, so two saves of the same zones never wait
    // for each other's.
    std::sort(zones.begin(), zones.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    Transaction transaction(connection, TransactionMode::write);
    for (const auto& [zoneId, members] : zones) {
        ZoneSave zone(connection, scope, zoneId, prepared, policy, atomic);
        if (!zone.save(members, outcomes)) return failAll(prepared);
    }
    transaction.commit();
    std::vector<SaveOutcome> results;
    for (auto& outcome : outcomes)
        results.push_back(std::move(*outcome));
    return results;
}

}  // namespace corvane::cloud
