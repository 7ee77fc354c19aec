// Object summaries: what the repository model keeps of each object instead of its contents
// (the links between commits, trees, tags and blobs). Plain values.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "objects/object.h"
#include "objects/object_type.h"
#include "objects/sha1.h"
#include "storage/object_id_table.h"
#include "storage/summary_map.h"

namespace corvane {

struct PartialCommit {
    std::string tree;
    std::vector<std::string> parents;  // first parent first
    bool operator==(const PartialCommit&) const = default;
};

// A tree's link to a subtree or blob. Trees hold most of a history's links (11 million in one of
// 300k objects), so a link is the id's number in the process's ObjectIdTable, not its text.
using TreeLink = ObjectIdTable::Number;
TreeLink treeLink(std::string_view id);  // id: an object id (isObjectId)
std::string linkedId(TreeLink link);

struct PartialTree {
    std::vector<TreeLink> trees;  // subtrees, in entry order
    std::vector<TreeLink> blobs;  // blobs (not submodules), in entry order
    bool operator==(const PartialTree&) const = default;
};

struct PartialTag {
    std::string target;
    ObjectType type = ObjectType::error;
    bool operator==(const PartialTag&) const = default;
};

// The references and summaries of one repository at one moment. A copy shares the summaries
// (see SummaryMap); references and pack sizes are few and copied whole.
struct RepositoryContent {
    std::map<std::string, std::string> refs;  // full name → id, in name order
    SummaryMap<PartialTag> tags;
    SummaryMap<PartialCommit> commits;
    SummaryMap<PartialTree> trees;
    SummaryMap<std::int64_t> blobs;                       // id → size in bytes
    std::unordered_map<std::string, std::int64_t> packs;  // pack id → stored size in bytes
    // Stored packs whose objects another pack now holds: pack id → when they left `packs`
    // (seconds since 1970). Their records stay a while for readers of an older state.
    std::map<std::string, std::int64_t> retiredPacks;

    bool contains(const std::string& id) const {
        return commits.contains(id) || trees.contains(id) || blobs.contains(id) ||
               tags.contains(id);
    }
    // Shares what was added since the last freeze (see SummaryMap::freeze).
    void freeze() {
        tags.freeze();
        commits.freeze();
        trees.freeze();
        blobs.freeze();
    }
    bool operator==(const RepositoryContent&) const = default;
};

// Records the summary of an object in the content unless it has one: a commit's
// tree and parents, a tree's subtrees and blobs (submodule links left out), a blob's size, a
// tag's target. Fails with the object parsers' messages.
void summarise(const Object& object, RepositoryContent& content);

// What an annotated tag finally points at, through tags of tags; none for any other id, or for
// a chain that does not end.
std::optional<std::string> peeledTag(const RepositoryContent& content, const std::string& id);

}  // namespace corvane
