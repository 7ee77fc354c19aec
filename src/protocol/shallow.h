// Shallow clones and fetches: what a client asked about the depth of its history ("shallow",
// "deepen", "deepen-relative", "deepen-since", "deepen-not" lines), and the answer worked out on
// the repository's commit summaries (and, for deepen-since, the times of the commits it reaches):
// the commits that become the client's new boundary, the boundaries it had that are lifted, and
// where the pack's walk stops. Pure functions.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "storage/summaries.h"

namespace corvane {

struct DepthRequest {
    // git's "as deep as there is": `git fetch --unshallow`.
    static constexpr int kInfiniteDepth = 0x7fffffff;

    std::vector<std::string> shallows;  // the client's boundary commits
    int depth = 0;                      // deepen N; 0 when not asked
    bool relative = false;              // N counts from the client's boundary (deepen-relative)
    std::vector<std::string> notRefs;   // deepen-not: history of these references stays out
    std::optional<std::int64_t> since;  // deepen-since: commits older than this stay out

    bool deepens() const { return depth > 0 || !notRefs.empty() || since; }
    // Reads one request line if it is one of these; false for any other line. Fails with
    // "Invalid deepen: <line>" and the like for a malformed one.
    bool read(std::string_view line);
};

struct ShallowUpdate {
    std::vector<std::string> shallow;    // new boundary commits: "shallow <id>"
    std::vector<std::string> unshallow;  // the client's boundaries now lifted: "unshallow <id>"
    // Commits whose parents the pack leaves out: the new boundary and the client's old one.
    std::unordered_set<std::string> boundaries;
    // Parents of lifted boundaries, which the pack must bring too.
    std::vector<std::string> extraWants;
};

// The committer time of a commit, in seconds since 1970; only deepen-since needs it, for the
// commits it sends and the parents where it stops.
using CommitTime = std::function<std::int64_t(const std::string& id)>;

// Fails with "Shallow commit <id> not found on server" for a client boundary the repository
// does not have, "deepen-not is not a ref: <name>", "Commit <id> not found on server", "No
// commits selected for shallow requests".
ShallowUpdate updateShallow(const RepositoryContent& content, const std::vector<std::string>& wants,
                            const DepthRequest& request, const CommitTime& commitTime = {});

}  // namespace corvane
