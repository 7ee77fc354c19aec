#include "storage/repository_name.h"

#include "base/utf8.h"

namespace corvane {

namespace {

// C0 controls and DEL, C1 controls (U+0080 to U+009F, "\xc2\x80" to "\xc2\x9f"), and the line and
// paragraph separators ("\xe2\x80\xa8", "\xe2\x80\xa9"), which end a line as a newline does. The
// bytes are valid UTF-8 here, so a lead byte always starts a character.
bool hasControlCharacter(std::string_view name) {
    for (std::size_t i = 0; i < name.size(); ++i) {
        auto byte = static_cast<unsigned char>(name[i]);
        if (byte < 0x20 || byte == 0x7f) return true;
        auto next = i + 1 < name.size() ? static_cast<unsigned char>(name[i + 1]) : 0;
        if (byte == 0xc2 && next >= 0x80 && next <= 0x9f) return true;
        if (byte == 0xe2 && next == 0x80 && i + 2 < name.size() &&
            (name[i + 2] == '\xa8' || name[i + 2] == '\xa9'))
            return true;
    }
    return false;
}

}  // namespace

std::optional<std::string> repositoryNameProblem(std::string_view name) {
    if (name.empty()) return "Name can not be empty";
    // A name is one part of a git:// path, where "/" separates the owner.
    if (name.find('/') != std::string_view::npos) return "Name can not contain /";
    if (name == "." || name == "..") return "Name can not be . or ..";
    if (name.size() > kMaxRepositoryNameBytes)
        return "Name can not be longer than " + std::to_string(kMaxRepositoryNameBytes) + " bytes";
    if (!isValidUtf8(name)) return "Name is not valid UTF-8";
    // `corvane list` prints a name per line, and logs quote it on one.
    if (hasControlCharacter(name))
        return "Name can not contain control characters such as newlines or tabs";
    return std::nullopt;
}

}  // namespace corvane
