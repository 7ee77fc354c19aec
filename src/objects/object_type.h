// ObjectType: git's pack object type numbers with their names in object headers and tag texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane {

enum class ObjectType : std::uint8_t {
    error = 0,
    commit = 1,
    tree = 2,
    blob = 3,
    tag = 4,
    ofsDelta = 6,
    refDelta = 7,
};

std::string_view typeName(ObjectType type);

// The type of a raw value (5 and values above 7 have none).
std::optional<ObjectType> objectTypeFromRaw(unsigned raw);

// The type of a name as written in tag texts; "error" is not one of them.
std::optional<ObjectType> objectTypeFromName(std::string_view name);

}  // namespace corvane
