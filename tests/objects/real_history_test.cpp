// A real history: every object of the lz4 repository, streamed from git, rebuilt with git's id,
// and every commit, tree and tag parsed, with the parsed links checked against the objects.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "objects/commit.h"
#include "objects/object.h"
#include "objects/tag.h"
#include "objects/tree.h"
#include "support/git_objects.h"
#include "support/process.h"

namespace corvane {
namespace {

TEST(RealHistory, EveryObjectRebuildsWithGitsIdAndParses) {
    testing::TempDir folder;
    std::map<std::string, std::size_t> counts;
    std::unordered_map<std::string, Commit> commits;
    std::unordered_map<std::string, Tree> trees;
    std::unordered_set<std::string> blobs;
    std::vector<std::string> wrongIds;
    std::vector<std::string> failures;
    testing::forEachBundleObject(
        testing::lz4Bundle(), folder.path(),
        [&](const std::string& id, std::string_view type, const Bytes& data) {
            ++counts[std::string(type)];
            Object object(*objectTypeFromName(type), data);
            if (object.id() != id) wrongIds.push_back(id);
            try {
                if (object.type() == ObjectType::commit) commits.emplace(id, parseCommit(object));
                if (object.type() == ObjectType::tree) trees.emplace(id, parseTree(object));
                if (object.type() == ObjectType::tag) parseTag(object);
                if (object.type() == ObjectType::blob) blobs.insert(id);
            } catch (const std::exception& error) {
                failures.push_back(error.what());
            }
        });
    EXPECT_EQ(wrongIds, std::vector<std::string>{});
    EXPECT_EQ(failures, std::vector<std::string>{});
    EXPECT_EQ(counts, (std::map<std::string, std::size_t>{
                          {"blob", 5588}, {"commit", 3571}, {"tree", 6927}}));

    // Parsed links name objects of the right kind; a wrong offset or hex digit would not.
    std::vector<std::string> badLinks;
    for (const auto& [id, commit] : commits) {
        if (!trees.count(commit.treeId)) badLinks.push_back(id + " tree");
        for (const auto& parent : commit.parentIds)
            if (!commits.count(parent)) badLinks.push_back(id + " parent " + parent);
    }
    for (const auto& [id, tree] : trees) {
        for (const auto& entry : tree.entries) {
            // By the mode's type bits: the history also holds old file modes such as 100744.
            auto kind = entry.mode & 0170000;
            bool known = kind == 040000
                             ? trees.count(entry.id) > 0
                             : (kind == 0100000 || kind == 0120000) && blobs.count(entry.id);
            if (!known) badLinks.push_back(id + " " + entry.name);
        }
    }
    EXPECT_EQ(badLinks, std::vector<std::string>{});
}

}  // namespace
}  // namespace corvane
