#include "objects/commit.h"

#include <charconv>

#include "base/error.h"
#include "base/utf8.h"
#include "objects/object_text.h"
#include "objects/sha1.h"

namespace corvane {

namespace {

bool isContinuationByte(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

// The text without its last character (a whole UTF-8 sequence, not a lone byte).
std::string_view dropLastCharacter(std::string_view text) {
    if (text.empty()) return text;
    std::size_t end = text.size() - 1;
    while (end > 0 && isContinuationByte(text[end]))
        --end;
    return text.substr(0, end);
}

// The text without its first character.
std::string_view dropFirstCharacter(std::string_view text) {
    if (text.empty()) return text;
    std::size_t start = 1;
    while (start < text.size() && isContinuationByte(text[start]))
        ++start;
    return text.substr(start);
}

// Seconds since the epoch as git writes them, read as a decimal number. from_chars ignores the
// process locale, which a desktop toolkit may have changed.
std::optional<double> readSeconds(std::string_view text) {
    double seconds = 0;
    auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (status != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return seconds;
}

}  // namespace

std::string_view Commit::title() const {
    std::string_view text = body;
    return text.substr(0, text.find('\n'));
}

// "<name> <<email>> <seconds> <zone>"; the zone is not kept.
CommitSignature parseSignature(std::string_view text) {
    auto open = text.find('<');
    auto close = text.find('>');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        throw Error("Invalid email in commit object");
    }
    CommitSignature signature;
    // The last character before "<" is the space between name and address.
    signature.name = dropLastCharacter(text.substr(0, open));
    signature.email = text.substr(open + 1, close - open - 1);
    // Past ">" and the space after it: "<seconds> <zone>".
    auto when = dropFirstCharacter(text.substr(close + 1));
    auto space = when.find(' ');
    if (space != std::string_view::npos) signature.timestamp = readSeconds(when.substr(0, space));
    return signature;
}

// Layout: header lines ("tree <id>", "parent <id>"..., "author <sig>", "committer <sig>", others
// such as "encoding" or "gpgsig" with space-led continuation lines), a blank line, the message.
Commit parseCommit(const Object& object, TextCheck check) {
    const std::string& id = object.id();
    std::string_view text = asText(object.data());
    if (check == TextCheck::utf8 && !isValidUtf8(text))
        throw Error("Corrupted commit object " + id);
    auto parts = splitObjectText(text);
    if (!parts) throw Error("Corrupted commit object " + id);

    Commit commit;
    commit.id = id;
    commit.body = parts->body;
    std::string_view authorText;
    std::string_view committerText;
    forEachHeaderLine(parts->header, [&](std::string_view line) {
        auto field = splitHeaderLine(line);
        if (!field) throw Error("Corrupted commit " + id);
        auto [key, value] = *field;
        if (key == "tree") {
            if (!commit.treeId.empty() || !isObjectId(value)) throw Error("Corrupted commit " + id);
            commit.treeId = value;
        } else if (key == "parent") {
            if (!isObjectId(value)) throw Error("Invalid parent on commit " + id);
            commit.parentIds.emplace_back(value);
        } else if (key == "author") {
            if (!authorText.empty()) throw Error("Multiple authors on commit " + id);
            authorText = value;
        } else if (key == "committer") {
            if (!committerText.empty()) throw Error("Multiple committers on commit " + id);
            committerText = value;
        }
        // Every other line, the signature block of "gpgsig" and stray continuation lines
        // included, carries nothing the system uses.
    });
    commit.author = parseSignature(authorText);
    commit.committer = parseSignature(committerText);
    return commit;
}

}  // namespace corvane
