#include "app/prefetch_order.h"

#include <unordered_set>

namespace corvane {

std::vector<std::string> prefetchOrder(const Repository& repository) {
    auto content = repository.content();
    std::vector<std::string> order;
    std::unordered_set<std::string> listed;
    auto list = [&](const std::string& id) {
        if (listed.insert(id).second) order.push_back(id);
    };
    for (auto id = repository.headCommit(); id;) {
        auto commit = content->commits.find(*id);
        // A missing commit ends the chain, and so does a loop in damaged metadata.
        if (commit == content->commits.end() || listed.contains(commit->first)) break;
        list(commit->first);
        list(commit->second.tree);
        if (commit->second.parents.empty()) break;
        id = commit->second.parents.front();
    }
    for (const auto& [id, tag] : content->tags)
        list(id);
    for (const auto& [id, commit] : content->commits)
        list(id);
    for (const auto& [id, tree] : content->trees)
        list(id);
    return order;
}

}  // namespace corvane
