// The sharing rows of a zone: its one share (URL token, title, thumbnail) and the people in it,
// in share order with the owner first. Functions work on the caller's connection and thread;
// the writers run inside the caller's write transaction.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/error.h"
#include "cloud/account.h"
#include "cloud/connection.h"
#include "cloud/share.h"

namespace corvane::cloud {

// A participant as it is about to be stored: an account, or an address without one yet.
struct ParticipantEntry {
    std::optional<std::int64_t> accountId;
    std::optional<std::string> email;
    std::optional<std::string> emailKey;
    Permission permission = Permission::readOnly;
    AcceptanceStatus requestedStatus = AcceptanceStatus::unknown;
};

// The people a share lists, other than its owner (whom the store always writes itself). Each
// entry must name a known user record or an e-mail address; otherwise the share is refused
// with code 12.
std::variant<std::vector<ParticipantEntry>, CloudError> resolveParticipants(Connection& connection,
                                                                            const Account& owner,
                                                                            const Share& share);

// Writes the zone's share and its people. A known person keeps their acceptance status, except
// that a person who left becomes pending again when added anew; a new person is pending.
// Returns the share as stored.
Share writeShare(Connection& connection, std::int64_t zoneRowId, std::int64_t recordRowId,
                 const Account& owner, const Share& share,
                 const std::vector<ParticipantEntry>& participants);

std::optional<Share> readShare(Connection& connection, std::int64_t zoneRowId);

// The row id of the zone's share record, when the zone has a share.
std::optional<std::int64_t> shareRecordRowId(Connection& connection, std::int64_t zoneRowId);

void deleteShare(Connection& connection, std::int64_t zoneRowId);

ParticipantType participantTypeFrom(std::int64_t value);
AcceptanceStatus acceptanceStatusFrom(std::int64_t value);
Permission permissionFrom(std::int64_t value);

}  // namespace corvane::cloud
