// The text layout shared by commit and tag objects: header lines "<key> <value>", a blank line,
// then the message. Pure functions over views of the caller's text, any thread.
#pragma once

#include <optional>
#include <string_view>

namespace corvane {

struct ObjectText {
    std::string_view header;
    std::string_view body;
};

// Splits at the first blank line; nullopt when the text has none.
inline std::optional<ObjectText> splitObjectText(std::string_view text) {
    auto blank = text.find("\n\n");
    if (blank == std::string_view::npos) return std::nullopt;
    return ObjectText{text.substr(0, blank), text.substr(blank + 2)};
}

struct HeaderField {
    std::string_view key;
    std::string_view value;
};

// Splits a header line at its first space; nullopt when it has none. A continuation line of a
// multi-line value starts with a space, so its key is empty.
inline std::optional<HeaderField> splitHeaderLine(std::string_view line) {
    auto space = line.find(' ');
    if (space == std::string_view::npos) return std::nullopt;
    return HeaderField{line.substr(0, space), line.substr(space + 1)};
}

// Calls visit(line) for each line of the header, split at every line feed.
template <typename Visit>
void forEachHeaderLine(std::string_view header, Visit visit) {
    for (;;) {
        auto end = header.find('\n');
        visit(header.substr(0, end));
        if (end == std::string_view::npos) return;
        header.remove_prefix(end + 1);
    }
}

}  // namespace corvane
