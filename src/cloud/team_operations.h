// A person's operations on a team store, other than reading and saving records
// (team_records.h): each is a call of the store's functions (team_store.sql), which decide on
// the server what the person may do. Functions work on the caller's connection and thread.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cloud/account.h"
#include "cloud/asset_cache.h"
#include "cloud/connection.h"
#include "cloud/record_id.h"
#include "cloud/share.h"
#include "cloud/share_metadata.h"
#include "cloud/storage_usage.h"

namespace corvane::cloud {

// The team store's layout that this program's functions belong to.
inline constexpr std::int64_t kTeamLayout = 4;

// The person the connection logged in as. Code 9 for a login that is not one of the store's
// people, 5 for a database that is no team store of this layout, 18 for a newer one.
Account teamSignIn(Connection& connection);

void teamCreateZone(Connection& connection, const std::string& zoneName);
// Deletes an own zone, or leaves a shared one. Code 26 when the zone is not reached.
void teamDeleteZone(Connection& connection, DatabaseScope scope, const ZoneId& zoneId);
std::vector<ZoneId> teamListZones(Connection& connection, DatabaseScope scope);
// The zones of teamListZones, each with a version of its records of those names and its people.
std::vector<ZoneVersion> teamZoneVersions(Connection& connection, DatabaseScope scope,
                                          std::span<const std::string> names);

std::optional<ShareParticipant> teamLookUpParticipant(Connection& connection,
                                                      std::string_view email);
ShareMetadata teamShareMetadata(Connection& connection, const AssetCache& cache,
                                const std::string& token, bool shouldFetchRootRecord);
void teamAcceptShare(Connection& connection, const std::string& token);

// The contents of the person's own zones.
StorageUsage teamStorageUsage(Connection& connection);

}  // namespace corvane::cloud
