#include "storage/repository.h"

#include <gtest/gtest.h>

#include "storage/repository_name.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace corvane {
namespace {

std::string id(char c) {
    return std::string(40, c);
}

Repository loaded(RepositoryContent content) {
    return Repository(id('9'), "__defaultOwner__", "tools", std::nullopt, std::nullopt,
                      std::move(content), 0);
}

TEST(RepositoryName, OnlyANameThatIsOneLineOfTextAndNoPathIsAccepted) {
    for (const std::string& name :
         std::vector<std::string>{"tools", "my tools", "caf\xc3\xa9", ".tools", "a..b",
                                  "\xe2\x80\xaf", std::string(255, 'x')})
        EXPECT_EQ(repositoryNameProblem(name), std::nullopt) << name;
    std::pair<std::string, std::string> refused[] = {
        {"", "Name can not be empty"},
        {"team/tools", "Name can not contain /"},
        {"/", "Name can not contain /"},
        {".", "Name can not be . or .."},
        {"..", "Name can not be . or .."},
        {std::string(256, 'x'), "Name can not be longer than 255 bytes"},
        {std::string(5000, 'x'), "Name can not be longer than 255 bytes"},
        {"tools\xff", "Name is not valid UTF-8"},
        {"\xc3", "Name is not valid UTF-8"},
        {"\xed\xa0\x80", "Name is not valid UTF-8"},  // a surrogate
        {"to\nols", "Name can not contain control characters such as newlines or tabs"},
        {"to\tols", "Name can not contain control characters such as newlines or tabs"},
        {std::string("to\0ols", 6),
         "Name can not contain control characters such as newlines or tabs"},
        {"tools\x7f", "Name can not contain control characters such as newlines or tabs"},
        {"to\xc2\x85ols", "Name can not contain control characters such as newlines or tabs"},
        // Line and paragraph separators end a line as a newline does.
        {"to\xe2\x80\xa8ols", "Name can not contain control characters such as newlines or tabs"},
        {"to\xe2\x80\xa9ols", "Name can not contain control characters such as newlines or tabs"},
    };
    for (const auto& [name, problem] : refused)
        EXPECT_EQ(repositoryNameProblem(name), problem) << name;
}

TEST(Repository, HeadAndTheHistoryItLeadsTo) {
    RepositoryContent content;
    content.refs["refs/heads/master"] = id('1');
    content.tags.add(id('1'), {id('2'), ObjectType::tag});
    content.tags.add(id('2'), {id('3'), ObjectType::commit});
    content.commits.add(id('3'), {id('t'), {}});
    Repository repository = loaded(content);
    EXPECT_EQ(repository.headCommit(), id('3'));

    auto state = repository.state();
    state.head = id('7');  // detached at an id nobody knows
    repository.setState(state);
    EXPECT_EQ(repository.headCommit(), id('7'));
    EXPECT_TRUE(repository.revList().empty());

    // Loaded, HEAD is chosen from the branches.
    RepositoryContent withMaster;
    withMaster.refs = {{"refs/heads/dev", id('1')}, {"refs/heads/master", id('2')}};
    EXPECT_EQ(loaded(withMaster).state().head, "ref: refs/heads/master");

    // main before other names, as a clone checks it out (the daemon's symref follows the same
    // rule); without either, the first name.
    RepositoryContent withMain;
    withMain.refs = {{"refs/heads/alpha", id('1')}, {"refs/heads/main", id('2')}};
    EXPECT_EQ(loaded(withMain).state().head, "ref: refs/heads/main");
    EXPECT_EQ(Repository::defaultBranch(withMain), "main");

    RepositoryContent withoutMaster;
    withoutMaster.refs = {
        {"refs/heads/zeta", id('1')}, {"refs/heads/alpha", id('2')}, {"refs/tags/v1", id('3')}};
    auto named = loaded(withoutMaster);
    EXPECT_EQ(named.state().head, "ref: refs/heads/alpha");
    EXPECT_EQ(named.branchNames(), (std::vector<std::string>{"alpha", "zeta"}));
    EXPECT_EQ(named.tagNames(), std::vector<std::string>{"v1"});

    RepositoryContent tagsOnly;
    tagsOnly.refs = {{"refs/tags/v1", id('3')}};
    auto bare = loaded(tagsOnly);
    EXPECT_EQ(bare.state().head, "ref: refs/heads/master");
    EXPECT_EQ(bare.headCommit(), std::nullopt);
    EXPECT_TRUE(bare.revList().empty());

    // The history walks first parents and stops where the summaries end.
    RepositoryContent history;
    history.refs = {{"refs/heads/master", id('c')}, {"refs/heads/side", id('x')}};
    history.commits.add(id('c'), {id('t'), {id('b'), id('x')}});
    history.commits.add(id('b'), {id('t'), {id('a')}});  // 'a' is not summarised
    history.commits.add(id('x'), {id('t'), {}});
    Repository walked = loaded(history);
    EXPECT_EQ(walked.revList(), (std::vector<std::string>{id('c'), id('b')}));
    walked.setHead("side");
    EXPECT_EQ(walked.revList(), std::vector<std::string>{id('x')});
    walked.setHead("master");  // the cache follows HEAD
    EXPECT_EQ(walked.revList(), (std::vector<std::string>{id('c'), id('b')}));
}

TEST(Repository, IdentityUrlsAndSize) {
    Repository placeholder;
    EXPECT_EQ(placeholder.url(), "git://localhost/");
    EXPECT_EQ(placeholder.estimatedSize(), 0);
    Repository fresh("tools");
    EXPECT_EQ(fresh.id(), "0284c6ac58cb47bb52e427007beee58e0132bf71");  // SHA-1 of the name
    EXPECT_EQ(fresh.url(), "git://localhost/tools");
    EXPECT_EQ(Repository::cloneURL("_0a1b2c", "tools"), "git://localhost/_0a1b2c/tools");

    RepositoryContent content;
    content.packs = {{"abc", 100}, {"abd", 23}};
    Repository sized(id('9'), "__defaultOwner__", "x", std::nullopt, std::nullopt, content, 7);
    EXPECT_EQ(sized.estimatedSize(), 130);
}

// A push publishing new summaries while readers walk the history, resolve HEAD and copy the
// maps: readers must only ever see whole snapshots. Run under ThreadSanitizer in CI.
TEST(Repository, ReadersSeeWholeSnapshotsWhileAPushPublishes) {
    auto repository = std::make_shared<Repository>(
        id('9'), "__defaultOwner__", "tools", std::nullopt, std::nullopt, RepositoryContent{}, 0);
    constexpr int kCommits = 300;
    std::atomic<bool> done{false};
    std::atomic<int> inconsistent{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            while (!done) {
                auto snapshot = repository->content();
                // Every published snapshot has master on a commit whose whole chain is there.
                auto master = snapshot->refs.find("refs/heads/master");
                if (master != snapshot->refs.end()) {
                    std::size_t length = 0;
                    for (auto c = snapshot->commits.find(master->second); c;
                         c = c->parents.empty() ? nullptr : snapshot->commits.find(c->parents[0]))
                        ++length;
                    if (length != snapshot->commits.size()) ++inconsistent;
                }
                auto history = repository->revList();
                auto head = repository->headCommit();
                if (head && !history.empty() && history.front() != *head &&
                    repository->content() == snapshot) {
                    ++inconsistent;
                }
                auto copy = *snapshot;
                (void)copy;
            }
        });
    }
    std::string parent;
    for (int i = 0; i < kCommits; ++i) {
        Repository::ContentUpdate update(*repository);
        char buffer[41];
        std::snprintf(buffer, sizeof buffer, "%040d", i + 1);
        std::string commit = buffer;
        update.content().commits.add(
            commit, {id('t'), parent.empty() ? std::vector<std::string>{} : std::vector{parent}});
        update.content().refs["refs/heads/master"] = commit;
        update.publish();
        parent = commit;
    }
    done = true;
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(inconsistent.load(), 0);
    EXPECT_EQ(repository->revList().size(), static_cast<std::size_t>(kCommits));
}

TEST(Repository, TwoUpdatesNeverInterleave) {
    Repository repository = loaded({});
    std::vector<std::thread> pushes;
    for (int p = 0; p < 4; ++p) {
        pushes.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                Repository::ContentUpdate update(repository);
                auto& counter = update.content().packs["counter"];
                auto before = counter;
                std::this_thread::yield();
                counter = before + 1;
                update.publish();
            }
        });
    }
    for (auto& push : pushes)
        push.join();
    EXPECT_EQ(repository.content()->packs.at("counter"), 200);
}

TEST(SummaryMap, CopiesShareLayersAndSeeOnlyTheirOwnAdditions) {
    SummaryMap<std::int64_t> map;
    for (int i = 0; i < 1000; ++i)
        map.add("base" + std::to_string(i), i);
    map.freeze();
    auto countAdded = [](const SummaryMap<std::int64_t>& m) {
        std::size_t count = 0;
        m.forEachAdded([&](const std::string&, std::int64_t) { ++count; });
        return count;
    };
    EXPECT_EQ(countAdded(map), 0u);

    // Many small pushes, each on a copy of the last published map.
    std::vector<SummaryMap<std::int64_t>> published{map};
    for (int push = 0; push < 300; ++push) {
        auto working = published.back();
        EXPECT_FALSE(working.add("base7", -1));  // held already: kept as it was
        working.add("push" + std::to_string(push), push);
        working.add("push" + std::to_string(push), -2);
        EXPECT_EQ(countAdded(working), 1u);
        working.freeze();
        published.push_back(working);
    }
    const auto& last = published.back();
    EXPECT_EQ(last.size(), 1300u);
    EXPECT_EQ(last.at("base7"), 7);
    EXPECT_EQ(last.at("push299"), 299);
    std::size_t visited = 0;
    last.forEach([&](const std::string&, std::int64_t) { ++visited; });
    EXPECT_EQ(visited, 1300u);
    // Earlier snapshots are untouched by what came after them.
    EXPECT_EQ(published[10].size(), 1010u);
    EXPECT_FALSE(published[10].contains("push10"));
    EXPECT_TRUE(published[11].contains("push10"));
    EXPECT_FALSE(published[11] == last);
    auto rebuilt = SummaryMap<std::int64_t>();
    last.forEach([&](const std::string& id, std::int64_t value) { rebuilt.add(id, value); });
    EXPECT_TRUE(rebuilt == last);

    // A received set joins whole when it is all new, and only its new entries otherwise; either
    // way they count as added.
    SummaryMap<std::int64_t> received;
    received.add("new1", 1);
    received.add("new2", 2);
    received.freeze();
    auto joined = last;
    EXPECT_EQ(joined.addAbsent(received).size(), 2u);
    EXPECT_EQ(countAdded(joined), 2u);
    EXPECT_EQ(joined.size(), 1302u);
    received.add("base1", -1);
    auto overlapping = last;
    auto ids = overlapping.addAbsent(received);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<std::string>{"new1", "new2"}));
    EXPECT_EQ(overlapping.at("base1"), 1);
    EXPECT_EQ(countAdded(overlapping), 2u);
    overlapping.freeze();
    EXPECT_TRUE(overlapping == joined);
}

}  // namespace
}  // namespace corvane
