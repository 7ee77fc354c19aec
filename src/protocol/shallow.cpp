#include "protocol/shallow.h"

#include <charconv>
#include <deque>
#include <unordered_map>

#include "base/error.h"
#include "objects/sha1.h"

namespace corvane {

namespace {

const PartialCommit& commitOf(const RepositoryContent& content, const std::string& id) {
    const PartialCommit* commit = content.commits.find(id);
    if (!commit) throw Error("Commit " + id + " not found on server");
    return *commit;
}

// The commit a want stands for, through tags; none for a tree or blob.
std::optional<std::string> commitOfWant(const RepositoryContent& content, const std::string& id) {
    std::string target = peeledTag(content, id).value_or(id);
    if (!content.commits.contains(target)) return std::nullopt;
    return target;
}

// Every commit reachable from `heads`.
std::unordered_set<std::string> reachable(const RepositoryContent& content,
                                          const std::vector<std::string>& heads) {
    std::unordered_set<std::string> seen;
    std::vector<std::string> pending(heads);
    while (!pending.empty()) {
        std::string id = std::move(pending.back());
        pending.pop_back();
        if (!seen.insert(id).second) continue;
        for (const auto& parent : commitOf(content, id).parents)
            pending.push_back(parent);
    }
    return seen;
}

// The reference a deepen-not names, as git resolves a short name.
std::string resolveRef(const RepositoryContent& content, const std::string& name) {
    for (const auto& full : {name, "refs/" + name, "refs/tags/" + name, "refs/heads/" + name}) {
        auto ref = content.refs.find(full);
        if (ref != content.refs.end()) return ref->second;
    }
    throw Error("deepen-not is not a ref: " + name);
}

}  // namespace

bool DepthRequest::read(std::string_view line) {
    auto argument = [&](std::string_view prefix) -> std::optional<std::string_view> {
        if (!line.starts_with(prefix)) return std::nullopt;
        return line.substr(prefix.size());
    };
    if (auto id = argument("shallow ")) {
        if (!isObjectId(*id)) throw Error("Invalid shallow line: " + std::string(line));
        shallows.emplace_back(*id);
        return true;
    }
    if (auto count = argument("deepen ")) {
        int value = 0;
        auto [end, error] = std::from_chars(count->data(), count->data() + count->size(), value);
        if (error != std::errc() || end != count->data() + count->size() || value <= 0)
            throw Error("Invalid deepen: " + std::string(line));
        depth = value;
        return true;
    }
    if (auto time = argument("deepen-since ")) {
        std::int64_t value = 0;
        auto [end, error] = std::from_chars(time->data(), time->data() + time->size(), value);
        if (error != std::errc() || end != time->data() + time->size() || value <= 0)
            throw Error("Invalid deepen-since: " + std::string(line));
        since = value;
        return true;
    }
    if (line == "deepen-relative") {
        relative = true;
        return true;
    }
    if (auto name = argument("deepen-not ")) {
        if (name->empty()) throw Error("Invalid deepen-not: " + std::string(line));
        notRefs.emplace_back(*name);
        return true;
    }
    return false;
}

ShallowUpdate updateShallow(const RepositoryContent& content, const std::vector<std::string>& wants,
                            const DepthRequest& request, const CommitTime& commitTime) {
    if (request.depth > 0 && (!request.notRefs.empty() || request.since))
        throw Error("deepen and deepen-since (or deepen-not) cannot be used together");
    std::unordered_set<std::string> clientShallows;
    for (const auto& id : request.shallows) {
        if (!content.commits.contains(id))
            throw Error("Shallow commit " + id + " not found on server");
        clientShallows.insert(id);
    }
    ShallowUpdate update;
    update.boundaries = clientShallows;
    if (!request.deepens()) return update;

    // Lifts a client boundary the new history passes through: its parents come in the pack.
    auto lift = [&](const std::string& id) {
        update.unshallow.push_back(id);
        update.boundaries.erase(id);
        for (const auto& parent : commitOf(content, id).parents)
            update.extraWants.push_back(parent);
    };
    auto markBoundary = [&](const std::string& id) {
        update.boundaries.insert(id);
        if (!clientShallows.contains(id)) update.shallow.push_back(id);
    };

    if (request.depth == DepthRequest::kInfiniteDepth) {
        for (const auto& id : request.shallows)
            lift(id);
        return update;
    }

    std::vector<std::string> heads;
    if (request.relative) {
        heads = request.shallows;
    } else {
        for (const auto& want : wants) {
            if (auto commit = commitOfWant(content, want)) heads.push_back(*commit);
        }
    }

    if (!request.notRefs.empty() || request.since) {
        std::vector<std::string> excludedHeads;
        for (const auto& name : request.notRefs) {
            if (auto commit = commitOfWant(content, resolveRef(content, name)))
                excludedHeads.push_back(*commit);
        }
        auto excluded = reachable(content, excludedHeads);
        // The walk stops at a commit older than the time, whatever its parents' times.
        std::unordered_map<std::string, bool> old;  // each commit's time is read once
        auto tooOld = [&](const std::string& id) {
            if (!request.since) return false;
            auto [known, added] = old.emplace(id, false);
            if (added) known->second = commitTime(id) < *request.since;
            return known->second;
        };
        std::unordered_set<std::string> included;
        std::vector<std::string> pending(heads);
        while (!pending.empty()) {
            std::string id = std::move(pending.back());
            pending.pop_back();
            if (excluded.contains(id) || included.contains(id) || tooOld(id)) continue;
            included.insert(id);
            for (const auto& parent : commitOf(content, id).parents)
                pending.push_back(parent);
        }
        if (included.empty()) throw Error("No commits selected for shallow requests");
        for (const auto& id : included) {
            bool cut = false;
            for (const auto& parent : commitOf(content, id).parents)
                cut = cut || !included.contains(parent);
            if (cut) {
                markBoundary(id);
            } else if (clientShallows.contains(id)) {
                lift(id);
            }
        }
        return update;
    }

    // Breadth first, so each commit is seen at its least depth: a head is at depth 1, and a
    // commit at the requested depth (one more when counted from the client's boundary) is
    // where the history is cut.
    int limit = request.relative ? request.depth + 1 : request.depth;
    std::unordered_map<std::string, int> depthOf;
    std::deque<std::string> queue;
    for (const auto& head : heads) {
        if (depthOf.emplace(head, 1).second) queue.push_back(head);
    }
    while (!queue.empty()) {
        std::string id = std::move(queue.front());
        queue.pop_front();
        int depth = depthOf.at(id);
        if (depth >= limit) {
            markBoundary(id);
            continue;
        }
        if (clientShallows.contains(id)) lift(id);
        for (const auto& parent : commitOf(content, id).parents) {
            if (depthOf.emplace(parent, depth + 1).second) queue.push_back(parent);
        }
    }
    return update;
}

}  // namespace corvane
