// Reading stored records: rows decoded into records whose assets are files in the asset cache,
// and share records completed with their share. Functions work on the caller's connection and
// thread, inside the caller's read transaction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cloud/asset_cache.h"
#include "cloud/connection.h"
#include "cloud/fetch_result.h"
#include "cloud/field_codec.h"

namespace corvane::cloud {

// Records named in one statement.
inline constexpr std::size_t kFetchGroupSize = 100;

// One result per name, in order: the record, code 11 when it does not exist, or code 1 when its
// stored form is damaged. zoneId is the zone as the caller names it; at most kFetchGroupSize
// names.
std::vector<FetchResult> readRecords(Connection& connection, const AssetCache& cache,
                                     std::int64_t zoneRowId, const ZoneId& zoneId,
                                     std::span<const std::string> names);

// A stored record as read from a row of (name, type, parent, fields, change_tag, created,
// modified), with the contents its fields use; error tells that its fields are damaged.
struct StoredRecordRow {
    Record record;
    std::vector<StoredAsset> assets;
    std::optional<CloudError> error;
};
StoredRecordRow recordFromRow(const SqlRow& row, const ZoneId& zoneId, const AssetCache& cache);

// One result per name, in order, from the rows found by name: code 11 for a name without one.
std::vector<FetchResult> resultsByName(std::map<std::string, StoredRecordRow, std::less<>>& rows,
                                       const ZoneId& zoneId, std::span<const std::string> names);

// Code 1 naming the record and what is wrong with its stored form.
CloudError damagedRecord(const std::string& recordName, const std::string& reason);

Date dateFromMilliseconds(std::int64_t milliseconds);
std::int64_t millisecondsOf(Date date);

}  // namespace corvane::cloud
