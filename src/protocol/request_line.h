// The git daemon request line: "<command> /<path>\0host=<host>\0". Pure parsing.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Owner name that stands for the current user: repositories addressed without an owner.
inline constexpr std::string_view kCurrentUserDefaultName = "__defaultOwner__";

struct RequestLine {
    std::string command;
    std::string path;   // as sent, with its leading "/"
    std::string owner;  // kCurrentUserDefaultName when the path names no owner
    std::string name;

    bool operator==(const RequestLine&) const = default;
};

// Fails with "Invalid request" when the line has no NUL or no space before it, and says what is
// wrong when the path does not start with "/", leaves the owner or the name empty, or names a
// repository or owner no repository can have (repositoryNameProblem).
RequestLine parseRequestLine(std::string_view line);

}  // namespace corvane
