#include "app/prefetch_order.h"

#include <gtest/gtest.h>

#include <set>

namespace corvane {
namespace {

std::string id(char c) {
    return std::string(40, c);
}

Repository withContent(RepositoryContent content) {
    return Repository(id('f'), "__defaultOwner__", "tools", std::nullopt, std::nullopt,
                      std::move(content), 0);
}

TEST(PrefetchOrder, HeadsFirstParentChainWithTreesThenEverythingElseOnce) {
    RepositoryContent content;
    // 3 <- 2 <- 1 on master, with 2 merging 9 (whose tree is shared with 1).
    content.refs["refs/heads/master"] = id('3');
    content.commits.add(id('3'), {id('c'), {id('2')}});
    content.commits.add(id('2'), {id('b'), {id('1'), id('9')}});
    content.commits.add(id('1'), {id('a'), {}});
    content.commits.add(id('9'), {id('a'), {}});
    content.trees.add(id('a'), {{}, {treeLink(id('0'))}});
    content.trees.add(id('b'), {{treeLink(id('d'))}, {}});
    content.trees.add(id('c'), {{}, {}});
    content.trees.add(id('d'), {{}, {}});
    content.tags.add(id('7'), {id('3'), ObjectType::commit});
    content.blobs.add(id('0'), 4);
    auto order = prefetchOrder(withContent(content));
    ASSERT_GE(order.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(order.begin(), order.begin() + 6),
              (std::vector<std::string>{id('3'), id('c'), id('2'), id('b'), id('1'), id('a')}));
    EXPECT_EQ(std::set<std::string>(order.begin() + 6, order.end()),
              (std::set<std::string>{id('9'), id('d'), id('7')}));
    EXPECT_EQ(order.size(), 9u);  // each once, and no blobs

    // A chain that reaches a commit the summaries lack, or loops in damaged metadata, ends.
    RepositoryContent looping;
    looping.refs["refs/heads/main"] = id('1');
    looping.commits.add(id('1'), {id('a'), {id('2')}});
    looping.commits.add(id('2'), {id('b'), {id('1')}});
    EXPECT_EQ(prefetchOrder(withContent(looping)),
              (std::vector<std::string>{id('1'), id('a'), id('2'), id('b')}));
    EXPECT_TRUE(prefetchOrder(Repository()).empty());
}

}  // namespace
}  // namespace corvane
