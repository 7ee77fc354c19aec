#include "objects/tag.h"

#include "base/error.h"
#include "base/utf8.h"
#include "objects/object_text.h"
#include "objects/sha1.h"

namespace corvane {

// Layout: "object <id>", "type <name>", "tag <name>", "tagger <sig>" lines, a blank line, then
// the message (with any signature inside it).
Tag parseTag(const Object& object, TextCheck check) {
    const std::string& id = object.id();
    std::string_view text = asText(object.data());
    if (check == TextCheck::utf8 && !isValidUtf8(text)) throw Error("Corrupted tag object " + id);
    auto parts = splitObjectText(text);
    if (!parts) throw Error("Invalid tag " + id);

    Tag tag;
    tag.id = id;
    tag.body = parts->body;
    std::optional<ObjectType> type;
    std::string_view taggerText;
    forEachHeaderLine(parts->header, [&](std::string_view line) {
        auto field = splitHeaderLine(line);
        if (!field) throw Error("Invalid tag " + id);
        auto [key, value] = *field;
        if (key == "object") {
            if (!isObjectId(value)) throw Error("Invalid tag " + id);
            tag.target = value;
        } else if (key == "type") {
            type = objectTypeFromName(value);
            if (!type) throw Error("Invalid tag " + id);
        } else if (key == "tagger") {
            if (!taggerText.empty()) throw Error("Multiple taggers on tag " + id);
            taggerText = value;
        }
    });
    if (tag.target.empty() || !type) throw Error("Invalid tag " + id);
    tag.type = *type;
    tag.tagger = parseSignature(taggerText);
    return tag;
}

}  // namespace corvane
