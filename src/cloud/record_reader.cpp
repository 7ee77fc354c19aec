#include "cloud/record_reader.h"

#include <map>
#include <optional>

#include "cloud/asset_store.h"
#include "cloud/error_codes.h"
#include "cloud/field_codec.h"
#include "cloud/share_store.h"

namespace corvane::cloud {
namespace {

using Row = StoredRecordRow;

}  // namespace

CloudError damagedRecord(const std::string& recordName, const std::string& reason) {
    std::string message = "The stored record " + recordName + " is damaged: " + reason;
    return CloudError(kInternalError, message, message);
}

StoredRecordRow recordFromRow(const SqlRow& sqlRow, const ZoneId& zoneId, const AssetCache& cache) {
    std::string name(sqlRow.text(0));
    Row row;
    auto& record = row.record;
    record.recordType = sqlRow.text(1);
    record.recordId = RecordId{name, zoneId};
    if (!sqlRow.isNull(2)) record.setParent(RecordId{std::string(sqlRow.text(2)), zoneId});
    try {
        record.fields = decodeFields(sqlRow.blob(3), zoneId, [&](const StoredAsset& asset) {
            row.assets.push_back(asset);
            return Asset{cache.pathFor(asset.hash)};
        });
    } catch (const Error& error) {
        row.error = damagedRecord(name, error.what());
    }
    record.recordChangeTag = std::string(sqlRow.text(4));
    record.creationDate = dateFromMilliseconds(sqlRow.integer(5));
    record.modificationDate = dateFromMilliseconds(sqlRow.integer(6));
    return row;
}

std::vector<FetchResult> resultsByName(std::map<std::string, StoredRecordRow, std::less<>>& rows,
                                       const ZoneId& zoneId, std::span<const std::string> names) {
    std::vector<FetchResult> results;
    for (const auto& name : names) {
        FetchResult result{RecordId{name, zoneId}, std::nullopt, std::nullopt};
        auto it = rows.find(name);
        if (it == rows.end()) {
            result.error = CloudError(kUnknownItem, "Record " + name + " does not exist");
        } else if (it->second.error) {
            result.error = it->second.error;
        } else {
            result.record = it->second.record;
        }
        results.push_back(std::move(result));
    }
    return results;
}

Date dateFromMilliseconds(std::int64_t milliseconds) {
    return Date(
        std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(milliseconds)));
}

std::int64_t millisecondsOf(Date date) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count();
}

std::vector<FetchResult> readRecords(Connection& connection, const AssetCache& cache,
                                     std::int64_t zoneRowId, const ZoneId& zoneId,
                                     std::span<const std::string> names) {
    std::vector<FetchResult> results;
    if (names.empty()) return results;

    std::string sql =
        "SELECT name, type, parent, fields, change_tag, created, modified FROM records "
        "WHERE zone_id = ? AND name IN (?";
    std::vector<SqlParam> params{zoneRowId};
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i) sql += ", ?";
        params.emplace_back(std::string_view(names[i]));
    }
    sql += ")";

    std::map<std::string, Row, std::less<>> rows;
    connection.execute(sql, params, [&](const SqlRow& sqlRow) {
        rows.insert_or_assign(std::string(sqlRow.text(0)), recordFromRow(sqlRow, zoneId, cache));
    });

    // Contents are written out after the query, once each, however many records use them.
    AssetStore assets(connection);
    std::map<std::string, std::optional<CloudError>, std::less<>> written;
    for (auto& [name, row] : rows) {
        for (const auto& asset : row.assets) {
            if (row.error) break;
            auto [it, isNew] = written.try_emplace(asset.hash);
            if (isNew) {
                try {
                    assets.writeToCache(asset, cache);
                } catch (const CloudError& error) {
                    it->second = error;
                }
            }
            if (it->second) row.error = *it->second;
        }
        if (!row.error && row.record.recordType == kShareRecordType) {
            row.record.share = readShare(connection, zoneRowId);
            if (!row.record.share) row.error = damagedRecord(name, "its share is missing");
        }
    }
    return resultsByName(rows, zoneId, names);
}

}  // namespace corvane::cloud
