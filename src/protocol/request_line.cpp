#include "protocol/request_line.h"

#include "base/error.h"
#include "storage/repository_name.h"

namespace corvane {

RequestLine parseRequestLine(std::string_view line) {
    auto nul = line.find('\0');
    if (nul == std::string_view::npos) throw Error("Invalid request");
    auto request = line.substr(0, nul);  // host and other parameters after the NUL are unused
    auto space = request.find(' ');
    if (space == std::string_view::npos) throw Error("Invalid request");

    RequestLine result;
    result.command = request.substr(0, space);
    result.path = request.substr(space + 1);
    std::string_view path = result.path;
    if (!path.starts_with('/')) throw Error("Invalid request: the path does not start with /");
    path.remove_prefix(1);
    auto slash = path.find('/');
    if (slash == std::string_view::npos) {
        result.owner = kCurrentUserDefaultName;
        result.name = path;
    } else {
        result.owner = path.substr(0, slash);
        result.name = path.substr(slash + 1);
        if (result.owner.empty()) throw Error("Invalid request: the path names no owner");
    }
    if (result.name.empty()) throw Error("Invalid request: the path names no repository");
    // A name no repository can have is refused before it reaches a lookup or a log line.
    if (slash != std::string_view::npos) {
        if (auto problem = repositoryNameProblem(result.owner))
            throw Error("Invalid request: the owner: " + *problem);
    }
    if (auto problem = repositoryNameProblem(result.name))
        throw Error("Invalid request: " + *problem);
    return result;
}

}  // namespace corvane
