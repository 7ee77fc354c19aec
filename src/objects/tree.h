// Tree and TreeEntry: a tree object's entries in their stored order, parsed from the object's
// bytes. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "objects/object.h"
#include "objects/text_check.h"

namespace corvane {

struct TreeEntry {
    std::string id;
    std::string name;
    // The octal mode as a number: 0100644 file, 0100755 executable, 0120000 symlink,
    // 040000 directory, 0160000 submodule.
    std::uint16_t mode = 0;

    bool operator==(const TreeEntry&) const = default;
};

struct Tree {
    std::string id;
    std::vector<TreeEntry> entries;

    bool operator==(const Tree&) const = default;
};

// Parses the contents of a tree object. Fails with "Corrupted tree object <id>".
Tree parseTree(const Object& object, TextCheck check = TextCheck::utf8);

// The entries one by one, as parseTree reads them, without copying them out: visit(mode, name,
// the id's 20 bytes). Fails as parseTree does.
using TreeEntryVisitor = std::function<void(std::uint16_t, std::string_view, ByteView)>;
void forEachTreeEntry(const Object& object, TextCheck check, const TreeEntryVisitor& visit);

}  // namespace corvane
