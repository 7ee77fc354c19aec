// Reading stored records: rows decoded into records whose assets are files in the asset cache,
// and share records completed with their share. Functions work on the caller's connection and
// thread, inside the caller's read transaction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cloud/asset_cache.h"
#include "cloud/connection.h"
#include "cloud/fetch_result.h"

namespace corvane::cloud {

// Records named in one statement.
inline constexpr std::size_t kFetchGroupSize = 100;

// One result per name, in order: the record, code 11 when it does not exist, or code 1 when its
// stored form is damaged. zoneId is the zone as the caller names it; at most kFetchGroupSize
// names.
std::vector<FetchResult> readRecords(Connection& connection, const AssetCache& cache,
                                     std::int64_t zoneRowId, const ZoneId& zoneId,
                                     std::span<const std::string> names);

Date dateFromMilliseconds(std::int64_t milliseconds);
std::int64_t millisecondsOf(Date date);

}  // namespace corvane::cloud
