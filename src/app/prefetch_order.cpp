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
        const PartialCommit* commit = content->commits.find(*id);
        // A missing commit ends the chain, and so does a loop in damaged metadata.
        if (!commit || listed.contains(*id)) break;
        list(*id);
        list(commit->tree);
        if (commit->parents.empty()) break;
        id = commit->parents.front();
    }
    auto listAll = [&](const std::string& id, const auto&) { list(id); };
    content->tags.forEach(listAll);
    content->commits.forEach(listAll);
    content->trees.forEach(listAll);
    return order;
}

}  // namespace corvane
