// Zone and record identifiers: plain values, compared and ordered field by field. A zone is
// named by its owner; the placeholder owner kCurrentUserDefaultName stands for the current user.
#pragma once

#include <compare>
#include <string>
#include <string_view>

namespace corvane::cloud {

inline constexpr std::string_view kCurrentUserDefaultName = "__defaultOwner__";

struct ZoneId {
    std::string zoneName;
    std::string ownerName{kCurrentUserDefaultName};

    auto operator<=>(const ZoneId&) const = default;
};

// A zone with a text that changes whenever what a list shows of it changes
// (Database::fetchZoneVersions).
struct ZoneVersion {
    ZoneId zoneId;
    std::string version;
};

struct RecordId {
    std::string recordName;
    ZoneId zoneId;

    auto operator<=>(const RecordId&) const = default;
};

// The two databases of a container, with the numbers that log lines and callers use.
enum class DatabaseScope { publicScope = 1, privateScope = 2, sharedScope = 3 };

// "public", "private", "shared".
std::string_view scopeName(DatabaseScope scope);

}  // namespace corvane::cloud
