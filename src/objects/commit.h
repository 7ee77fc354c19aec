// Commit and CommitSignature: the parts of a commit object the system uses (tree and parent
// links, people, dates, message), parsed from the object's bytes. Pure functions, any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "objects/object.h"
#include "objects/text_check.h"

namespace corvane {

// The author, committer or tagger of an object.
struct CommitSignature {
    std::string name;
    std::string email;  // without the angle brackets
    // Seconds since 1970-01-01 UTC; absent when the text carries no readable time.
    std::optional<double> timestamp;

    bool operator==(const CommitSignature&) const = default;
};

struct Commit {
    std::string id;
    std::string treeId;                  // empty when the commit has no "tree" line
    std::vector<std::string> parentIds;  // first parent first
    CommitSignature author;
    CommitSignature committer;
    std::string body;  // everything after the first blank line, final line feed included

    // The body's first line, without its line feed.
    std::string_view title() const;

    bool operator==(const Commit&) const = default;
};

// Parses the contents of a commit object. Fails with "Corrupted commit object <id>",
// "Corrupted commit <id>", "Invalid parent on commit <id>", "Multiple authors on commit <id>",
// "Multiple committers on commit <id>" or "Invalid email in commit object".
Commit parseCommit(const Object& object, TextCheck check = TextCheck::utf8);

// Parses the value of an "author", "committer" or "tagger" line:
// "<name> <<email>> <seconds> <zone>". Fails with "Invalid email in commit object".
CommitSignature parseSignature(std::string_view text);

}  // namespace corvane
