// Which zone a zone id names for an account, and what the account may do there: its own zones
// through the private database, zones of others whose share it accepted through the shared
// database. Nothing else is visible. Functions work on the caller's connection and thread.
#pragma once

#include <cstdint>
#include <optional>

#include "cloud/account.h"
#include "cloud/connection.h"
#include "cloud/record_id.h"

namespace corvane::cloud {

struct ZoneGrant {
    std::int64_t zoneRowId = 0;
    std::int64_t ownerId = 0;
    bool owned = false;
    Permission permission = Permission::none;
};

// The zone when the account sees it through the database of `scope`.
std::optional<ZoneGrant> findZone(Connection& connection, const Account& account,
                                  DatabaseScope scope, const ZoneId& zoneId);

// True when the owner name means the account itself.
bool isOwnName(const Account& account, std::string_view ownerName);

}  // namespace corvane::cloud
