#include "objects/tree.h"

#include <charconv>
#include <cstring>

#include "base/error.h"
#include "base/utf8.h"
#include "objects/sha1.h"

namespace corvane {

namespace {

constexpr std::size_t kRawIdSize = 20;

}  // namespace

// Each entry: "<octal mode> <name>" NUL, then the entry's 20-byte raw id.
void forEachTreeEntry(const Object& object, TextCheck check, const TreeEntryVisitor& visit) {
    ByteView data = object.data();
    auto corrupted = [&] { return Error("Corrupted tree object " + object.id()); };
    std::size_t position = 0;
    while (position < data.size()) {
        const void* nul = std::memchr(data.data() + position, 0, data.size() - position);
        if (!nul) throw corrupted();
        std::size_t end =
            static_cast<std::size_t>(static_cast<const std::uint8_t*>(nul) - data.data());
        std::string_view head = asText(data.subspan(position, end - position));
        if (check == TextCheck::utf8 && !isValidUtf8(head)) throw corrupted();
        auto space = head.find(' ');
        if (space == std::string_view::npos) throw corrupted();

        std::uint16_t mode = 0;
        const char* modeEnd = head.data() + space;
        auto [stop, status] = std::from_chars(head.data(), modeEnd, mode, 8);
        if (status != std::errc() || stop != modeEnd) throw corrupted();
        if (data.size() - (end + 1) < kRawIdSize) throw corrupted();
        visit(mode, head.substr(space + 1), data.subspan(end + 1, kRawIdSize));
        position = end + 1 + kRawIdSize;
    }
}

Tree parseTree(const Object& object, TextCheck check) {
    Tree tree;
    tree.id = object.id();
    forEachTreeEntry(object, check, [&](std::uint16_t mode, std::string_view name, ByteView id) {
        tree.entries.push_back({hexString(id), std::string(name), mode});
    });
    return tree;
}

}  // namespace corvane
