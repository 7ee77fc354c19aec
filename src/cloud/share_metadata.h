// What a share URL tells the person who opens it: the share, its root record, the owner and the
// opener's own place in the share. Plain value, handed back to accept the share.
#pragma once

#include <optional>

#include "cloud/record.h"
#include "cloud/share.h"

namespace corvane::cloud {

struct ShareMetadata {
    Record share;  // a share record (share is set)
    RecordId rootRecordId;
    std::optional<Record> rootRecord;  // when it was asked for
    UserIdentity ownerIdentity;
    ParticipantType participantType = ParticipantType::unknown;
    AcceptanceStatus participantStatus = AcceptanceStatus::unknown;
    Permission participantPermission = Permission::unknown;
};

}  // namespace corvane::cloud
