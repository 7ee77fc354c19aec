// Tag: an annotated tag object (what it points at, who made it, its message), parsed from the
// object's bytes. Pure functions, any thread.
#pragma once

#include <string>

#include "objects/commit.h"
#include "objects/object.h"
#include "objects/object_type.h"
#include "objects/text_check.h"

namespace corvane {

struct Tag {
    std::string id;
    std::string target;                   // id of the tagged object
    ObjectType type = ObjectType::error;  // type of the tagged object
    CommitSignature tagger;
    std::string body;  // everything after the first blank line

    bool operator==(const Tag&) const = default;
};

// Parses the contents of a tag object. Fails with "Corrupted tag object <id>", "Invalid tag <id>",
// "Multiple taggers on tag <id>" or "Invalid email in commit object".
Tag parseTag(const Object& object, TextCheck check = TextCheck::utf8);

}  // namespace corvane
