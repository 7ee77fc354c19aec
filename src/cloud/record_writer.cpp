#include "cloud/record_writer.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "base/queues.h"
#include "cloud/asset_file.h"
#include "cloud/asset_store.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"
#include "cloud/field_codec.h"
#include "cloud/record_reader.h"
#include "cloud/share_store.h"
#include "cloud/team_records.h"
#include "cloud/zone_access.h"

namespace corvane::cloud {
namespace {

using Pending = PreparedRecord;

CloudError invalid(const std::string& message) {
    return CloudError(kInvalidArguments, message);
}

void forEachAsset(const Record& record,
                  const std::function<void(const std::string&, const Asset&)>& visit) {
    for (const auto& [key, value] : record.fields) {
        if (auto* asset = std::get_if<Asset>(&value)) visit(key, *asset);
        if (auto* assets = std::get_if<std::vector<Asset>>(&value)) {
            for (const auto& item : *assets)
                visit(key, item);
        }
    }
}

std::optional<CloudError> check(const Record& record) {
    const auto& id = record.recordId;
    if (id.recordName.empty() || id.zoneId.zoneName.empty())
        return invalid("A record needs a record name and a zone name");
    if (record.recordType.empty()) return invalid("Record " + id.recordName + " has no type");
    bool shareType = record.recordType == kShareRecordType;
    if (shareType != record.share.has_value())
        return invalid("Record " + id.recordName + " is not a share made with makeShare");
    if (record.share && record.share->rootRecordName.empty())
        return invalid("Share " + id.recordName + " has no root record");
    if (record.parent && record.parent->recordId.zoneId != id.zoneId)
        return invalid("The parent of record " + id.recordName + " is in another zone");
    for (const auto& [key, value] : record.fields) {
        if (key.empty()) return invalid("Record " + id.recordName + " has a field without a name");
        auto* reference = std::get_if<Reference>(&value);
        if (reference && reference->recordId.zoneId != id.zoneId)
            return invalid("Field " + key + " of record " + id.recordName +
                           " refers to a record in another zone");
    }
    return std::nullopt;
}

// A file of the asset cache is named by the hash its bytes were checked against when it was
// written, so its digest is known without reading it: a record saved again with its large
// fetched assets (a pack, a metadata base) costs no hashing of them.
std::optional<FileDigest> cachedDigest(const Asset& asset, const AssetCache& cache) {
    const auto& file = *asset.fileURL;
    if (asset.range || file.parent_path() != cache.directory()) return std::nullopt;
    std::string name = file.filename().string();
    bool hashName = name.size() == 64 && std::all_of(name.begin(), name.end(), [](char c) {
                        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
                    });
    if (!hashName) return std::nullopt;
    std::error_code error;
    auto size = std::filesystem::file_size(file, error);
    if (error) return std::nullopt;
    return FileDigest{std::move(name), size, nullptr};
}

// Small files (most of a pack's objects) stay in memory between hashing and storing, so they are
// read once; a save keeps at most this much of them.
constexpr std::uint64_t kKeptFileSize = 256 << 10;
constexpr std::uint64_t kKeptBytesPerSave = 32 << 20;
// A save naming this many files hashes them on every core.
constexpr std::size_t kFilesPerDigestThread = 256;

using DigestResult = std::variant<FileDigest, CloudError>;

// Digests the files the records name, each once: many on several threads, which live as long as
// the call.
std::map<std::string, DigestResult> digestFiles(const std::vector<Pending>& pending,
                                                const AssetCache& cache) {
    std::map<std::string, std::pair<const Asset*, DigestResult>> digests;
    for (const auto& item : pending) {
        if (item.error) continue;
        forEachAsset(*item.record, [&](const std::string&, const Asset& asset) {
            if (asset.fileURL) digests.emplace(assetKey(asset), std::pair{&asset, DigestResult{}});
        });
    }
    std::vector<std::pair<const Asset*, DigestResult>*> entries;
    for (auto& [key, entry] : digests)
        entries.push_back(&entry);
    std::atomic<std::size_t> next = 0;
    std::atomic<std::uint64_t> kept = 0;
    auto work = [&] {
        for (std::size_t i = next++; i < entries.size(); i = next++) {
            auto& [asset, result] = *entries[i];
            try {
                auto cached = cachedDigest(*asset, cache);
                auto digest = cached ? *cached : digestAsset(*asset, kKeptFileSize);
                if (digest.contents && (kept += digest.contents->size()) > kKeptBytesPerSave)
                    digest.contents.reset();
                result = std::move(digest);
            } catch (const CloudError& error) {
                result = error;
            } catch (const std::exception& error) {
                // Nothing may leave a helper thread; the record fails like an unreadable file.
                result = CloudError(kInternalError, error.what());
            }
        }
    };
    std::vector<std::jthread> helpers;
    auto threads = std::max(1u, std::thread::hardware_concurrency());
    for (unsigned t = 1; t < threads && t * kFilesPerDigestThread < entries.size(); ++t)
        helpers.emplace_back([&] {
            setThreadName("asset_digest");
            work();
        });
    work();
    helpers.clear();  // joins
    std::map<std::string, DigestResult> results;
    for (auto& [key, entry] : digests)
        results.emplace(key, std::move(entry.second));
    return results;
}

void assignDigests(Pending& pending, const std::map<std::string, DigestResult>& digests) {
    forEachAsset(*pending.record, [&](const std::string& field, const Asset& asset) {
        if (pending.error) return;
        if (!asset.fileURL) {
            pending.error = CloudError(kAssetFileNotFound, "Field " + field + " of record " +
                                                               pending.record->recordId.recordName +
                                                               " has no file");
            return;
        }
        auto key = assetKey(asset);
        const auto& result = digests.at(key);
        if (const auto* error = std::get_if<CloudError>(&result)) {
            pending.error = *error;
        } else {
            pending.digests.emplace(key, std::pair{asset, std::get<FileDigest>(result)});
        }
    });
}

class Writer {
  public:
    Writer(Session& session, Connection& connection, DatabaseScope scope, SavePolicy policy)
        : session_(session), connection_(connection), scope_(scope), policy_(policy) {}

    // The stored record, or why this record is refused. The contents it stopped using are
    // added to `released`.
    std::variant<Record, CloudError> write(const Pending& pending, std::set<std::string>& released);

  private:
    std::optional<ZoneGrant> zone(const ZoneId& zoneId) {
        auto it = zones_.find(zoneId);
        if (it == zones_.end())
            it = zones_.emplace(zoneId, findZone(connection_, session_.account(), scope_, zoneId))
                     .first;
        return it->second;
    }

    Session& session_;
    Connection& connection_;
    DatabaseScope scope_;
    SavePolicy policy_;
    std::map<ZoneId, std::optional<ZoneGrant>> zones_;
};

std::variant<Record, CloudError> Writer::write(const Pending& pending,
                                               std::set<std::string>& released) {
    const Record& record = *pending.record;
    const auto& name = record.recordId.recordName;
    auto grant = zone(record.recordId.zoneId);
    if (!grant)
        return CloudError(kUnknownItem,
                          "Record zone " + record.recordId.zoneId.zoneName + " does not exist");
    if (!grant->owned && grant->permission != Permission::readWrite)
        return CloudError(kPermissionFailure, "No permission to change records of zone " +
                                                  record.recordId.zoneId.zoneName);
    if (record.share && !grant->owned)
        return CloudError(kPermissionFailure, "Only the owner of a zone can change its share");

    struct Stored {
        std::int64_t id;
        std::string changeTag;
        std::string type;
        std::int64_t created;
    };
    std::optional<Stored> stored;
    connection_.execute(
        "SELECT id, change_tag, type, created FROM records WHERE zone_id = ? AND name = ?",
        {grant->zoneRowId, name}, [&](const SqlRow& row) {
            stored = Stored{row.integer(0), std::string(row.text(1)), std::string(row.text(2)),
                            row.integer(3)};
        });
    if (policy_ == SavePolicy::ifServerRecordUnchanged) {
        if (stored && record.recordChangeTag != stored->changeTag)
            return CloudError(kServerRecordChanged,
                              "Record " + name + " was changed by another save");
        if (!stored && record.recordChangeTag)
            return CloudError(kUnknownItem, "Record " + name + " does not exist any more");
    }
    if (stored && (stored->type == kShareRecordType) != record.share.has_value())
        return invalid("Record " + name + " cannot change between share and plain record");

    std::vector<ParticipantEntry> participants;
    if (record.share) {
        auto existing = shareRecordRowId(connection_, grant->zoneRowId);
        if (existing && (!stored || *existing != stored->id))
            return CloudError(kAlreadyShared,
                              "Zone " + record.recordId.zoneId.zoneName + " is already shared");
        auto resolved = resolveParticipants(connection_, session_.account(), *record.share);
        if (auto* error = std::get_if<CloudError>(&resolved)) return *error;
        participants = std::get<std::vector<ParticipantEntry>>(std::move(resolved));
    }

    AssetStore assets(connection_);
    std::set<std::string> uses;
    for (const auto& [key, digested] : pending.digests) {
        const auto& [asset, digest] = digested;
        if (!uses.insert(digest.hash).second) continue;
        if (auto error = assets.store(asset, digest)) return *error;
    }
    auto fields = encodeFields(record.fields, [&](const Asset& asset) {
        const auto& digest = pending.digests.at(assetKey(asset)).second;
        return StoredAsset{digest.hash, digest.size};
    });

    auto now = millisecondsOf(std::chrono::system_clock::now());
    auto changeTag = randomHex(8);
    SqlParam parent = std::monostate{};
    if (record.parent) parent = std::string_view(record.parent->recordId.recordName);
    std::int64_t rowId = 0;
    std::int64_t created = now;
    if (stored) {
        rowId = stored->id;
        created = stored->created;
        connection_.execute(
            "UPDATE records SET type = ?, parent = ?, fields = ?, change_tag = ?, modified = ? "
            "WHERE id = ?",
            {record.recordType, parent, fields, changeTag, now, rowId});
        connection_.execute("SELECT hash FROM asset_refs WHERE record_id = ?", {rowId},
                            [&](const SqlRow& row) {
                                std::string hash(row.text(0));
                                if (!uses.count(hash)) released.insert(std::move(hash));
                            });
        connection_.execute("DELETE FROM asset_refs WHERE record_id = ?", {rowId});
    } else {
        connection_.execute(
            "INSERT INTO records (zone_id, name, type, parent, fields, change_tag, created, "
            "modified) VALUES (?, ?, ?, ?, ?, ?, ?, ?) RETURNING id",
            {grant->zoneRowId, name, record.recordType, parent, fields, changeTag, now, now},
            [&](const SqlRow& row) { rowId = row.integer(0); });
    }
    for (const auto& hash : uses)
        connection_.execute("INSERT INTO asset_refs (record_id, hash) VALUES (?, ?)",
                            {rowId, hash});

    Record saved = record;
    saved.recordChangeTag = changeTag;
    saved.creationDate = dateFromMilliseconds(created);
    saved.modificationDate = dateFromMilliseconds(now);
    if (record.share)
        saved.share = writeShare(connection_, grant->zoneRowId, rowId, session_.account(),
                                 *record.share, participants);
    return saved;
}

}  // namespace

std::string assetKey(const Asset& asset) {
    std::string key = asset.fileURL->string();
    if (asset.range) {
        key += '\0';
        key += std::to_string(asset.range->offset) + ':' + std::to_string(asset.range->length);
    }
    return key;
}

std::vector<SaveOutcome> failAll(const std::vector<PreparedRecord>& pending) {
    std::vector<SaveOutcome> outcomes;
    for (const auto& item : pending) {
        auto error = item.error.value_or(
            CloudError(kBatchRequestFailed, "Record " + item.record->recordId.recordName +
                                                " was not saved because another record failed"));
        outcomes.push_back({item.record->recordId, std::nullopt, std::move(error)});
    }
    return outcomes;
}

std::vector<SaveOutcome> saveRecords(Session& session, DatabaseScope scope,
                                     const std::vector<Record>& records, SavePolicy policy,
                                     bool atomic) {
    std::set<RecordId> ids;
    for (const auto& record : records) {
        if (!ids.insert(record.recordId).second)
            throw invalid("Record " + record.recordId.recordName + " is saved twice in one save");
    }

    std::vector<Pending> pending(records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        pending[i].record = &records[i];
        pending[i].error = check(records[i]);
    }
    auto digests = digestFiles(pending, session.assetCache);
    bool anyRefused = false;
    for (auto& item : pending) {
        if (!item.error) assignDigests(item, digests);
        anyRefused = anyRefused || item.error;
    }
    if (atomic && anyRefused) return failAll(pending);
    bool anyToWrite = false;
    for (const auto& item : pending)
        anyToWrite = anyToWrite || !item.error;
    if (!anyToWrite) return failAll(pending);

    session.account();  // signs in first
    auto connection = session.pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql)
        return saveTeamRecords(*connection, scope, pending, policy, atomic);
    Transaction transaction(*connection, TransactionMode::write);
    Writer writer(session, *connection, scope, policy);
    std::vector<SaveOutcome> outcomes;
    std::set<std::string> released;
    for (auto& item : pending) {
        const auto& id = item.record->recordId;
        if (item.error) {
            outcomes.push_back({id, std::nullopt, item.error});
            continue;
        }
        // Without atomicity a refused record must leave no trace while the others stay.
        if (!atomic) connection->execute("SAVEPOINT record_save");
        std::set<std::string> releasedHere;
        auto result = writer.write(item, releasedHere);
        if (auto* error = std::get_if<CloudError>(&result)) {
            if (atomic) {
                item.error = *error;
                return failAll(pending);  // the transaction rolls back as it goes
            }
            connection->execute("ROLLBACK TO SAVEPOINT record_save");
            connection->execute("RELEASE SAVEPOINT record_save");
            outcomes.push_back({id, std::nullopt, *error});
            continue;
        }
        if (!atomic) connection->execute("RELEASE SAVEPOINT record_save");
        released.merge(releasedHere);
        outcomes.push_back({id, std::get<Record>(std::move(result)), std::nullopt});
    }
    AssetStore(*connection).collect(released);
    transaction.commit();
    return outcomes;
}

}  // namespace corvane::cloud
