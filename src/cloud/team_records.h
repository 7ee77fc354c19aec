// Reading and saving records on a team store through the store's functions (team_store.sql):
// each call names one zone, the server checks the person's rights on it, and contents travel
// in batches of pieces. Functions work on the caller's connection and thread.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cloud/asset_cache.h"
#include "cloud/connection.h"
#include "cloud/fetch_result.h"
#include "cloud/modify_records_operation.h"
#include "cloud/prepared_record.h"
#include "cloud/record_writer.h"

namespace corvane::cloud {

// One result per name, in order, with the records' contents written to the cache. A share's
// token, when given, is the way into its zone (scope and owner then count for nothing).
std::vector<FetchResult> readTeamRecords(Connection& connection, const AssetCache& cache,
                                         DatabaseScope scope, const ZoneId& zoneId,
                                         const std::optional<std::string>& token,
                                         std::span<const std::string> names);

// One outcome per record, in order, as saveRecords promises; runs its own write transaction.
std::vector<SaveOutcome> saveTeamRecords(Connection& connection, DatabaseScope scope,
                                         std::vector<PreparedRecord>& prepared, SavePolicy policy,
                                         bool atomic);

}  // namespace corvane::cloud
