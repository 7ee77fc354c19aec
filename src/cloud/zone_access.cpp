#include "cloud/zone_access.h"

namespace corvane::cloud {

bool isOwnName(const Account& account, std::string_view ownerName) {
    return ownerName == kCurrentUserDefaultName || ownerName == account.recordName;
}

std::optional<ZoneGrant> findZone(Connection& connection, const Account& account,
                                  DatabaseScope scope, const ZoneId& zoneId) {
    std::optional<ZoneGrant> grant;
    if (scope == DatabaseScope::privateScope) {
        if (!isOwnName(account, zoneId.ownerName)) return std::nullopt;
        connection.execute(
            "SELECT id FROM zones WHERE owner_id = ? AND name = ?", {account.id, zoneId.zoneName},
            [&](const SqlRow& row) {
                grant = ZoneGrant{row.integer(0), account.id, true, Permission::readWrite};
            });
        return grant;
    }
    if (scope != DatabaseScope::sharedScope || isOwnName(account, zoneId.ownerName))
        return std::nullopt;
    connection.execute(
        "SELECT zones.id, zones.owner_id, participants.permission FROM zones "
        "JOIN accounts ON accounts.id = zones.owner_id "
        "JOIN participants ON participants.zone_id = zones.id "
        "WHERE accounts.record_name = ? AND zones.name = ? AND participants.account_id = ? "
        "AND participants.status = ?",
        {zoneId.ownerName, zoneId.zoneName, account.id,
         std::int64_t{static_cast<int>(AcceptanceStatus::accepted)}},
        [&](const SqlRow& row) {
            auto permission = row.integer(2) == static_cast<int>(Permission::readWrite)
                                  ? Permission::readWrite
                                  : Permission::readOnly;
            grant = ZoneGrant{row.integer(0), row.integer(1), false, permission};
        });
    return grant;
}

}  // namespace corvane::cloud
