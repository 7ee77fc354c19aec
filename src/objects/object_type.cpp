#include "objects/object_type.h"

namespace corvane {

std::string_view typeName(ObjectType type) {
    switch (type) {
        case ObjectType::error:
            return "error";
        case ObjectType::commit:
            return "commit";
        case ObjectType::tree:
            return "tree";
        case ObjectType::blob:
            return "blob";
        case ObjectType::tag:
            return "tag";
        case ObjectType::ofsDelta:
            return "ofs_delta";
        case ObjectType::refDelta:
            return "ref_delta";
    }
    return "error";
}

std::optional<ObjectType> objectTypeFromRaw(unsigned raw) {
    if (raw > 7 || raw == 5) return std::nullopt;
    return static_cast<ObjectType>(raw);
}

std::optional<ObjectType> objectTypeFromName(std::string_view name) {
    for (auto type : {ObjectType::commit, ObjectType::tree, ObjectType::blob, ObjectType::tag,
                      ObjectType::ofsDelta, ObjectType::refDelta}) {
        if (typeName(type) == name) return type;
    }
    return std::nullopt;
}

}  // namespace corvane
