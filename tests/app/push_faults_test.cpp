// A push of a real history through the daemon, with the real git client, while the store fails
// each of the push's cloud operations in turn: at its start, instead of its commit, and after
// its commit (done, but reported failed). After every failure the references are exactly as
// before or exactly as after, a clone with an empty cache is complete and fsck-clean, and the
// same push then succeeds. The sweep runs on both metadata layouts: one whole document, and a
// base with increments.
#include <gtest/gtest.h>

#include "app/application.h"
#include "app_fixture.h"

namespace corvane {
namespace {

using FailWhen = testing::AppFixture::FailWhen;

const std::map<std::string, std::string> kGit = {
    {"GIT_CONFIG_NOSYSTEM", "1"}, {"GIT_CONFIG_GLOBAL", "/dev/null"}, {"GIT_TERMINAL_PROMPT", "0"}};

// The metadata threshold: one whole document, or a base and increments from the first save on.
struct PushFaults : testing::AppFixture, ::testing::WithParamInterface<std::size_t> {
    std::unique_ptr<Server> server = makeGitServer(*state);
    // Clones come from a second daemon with a cache of its own, on the same store, never faulty.
    std::string verifierCache = dir.path() + "/verifier-cache";
    std::unique_ptr<AppState> verifierState =
        std::make_unique<AppState>(mainQueue, openVerifierContainer(), verifierCache + "/Objects",
                                   Store::Timing{.runExpiryThread = false});
    std::unique_ptr<Server> verifier = makeGitServer(*verifierState);
    std::string source = dir.path() + "/source";

    void SetUp() override {
        state->backend().setIncrementalMetaThreshold(GetParam());
        ASSERT_TRUE(server->start(0));
        ASSERT_TRUE(verifier->start(0));
        std::filesystem::create_directories(source);
        git("git clone -q --mirror " + std::string(CORVANE_SHARED_DIR) + "/testdata/lz4.bundle .");
        state->createRepository("lz4");
        ASSERT_TRUE(pumpUntil([&] { return !state->repositories().empty(); }));
    }
    void TearDown() override {
        verifier.reset();
        server.reset();
        mainQueue.drain();
        verifierState.reset();
    }

    std::unique_ptr<cloud::Container> openVerifierContainer() {
        cloud::ContainerOptions options;
        options.assetCacheDirectory = dir.path() + "/verifier-assets";
        options.account.email = "owner@example.com";
        return cloud::Container::open(dir.path() + "/cloud.sqlite", options);
    }
    static std::string url(const Server& daemon) {
        return "git://127.0.0.1:" + std::to_string(daemon.port()) + "/lz4";
    }
    testing::CommandResult git(const std::string& script, bool mustSucceed = true) {
        auto result = testing::runShell(script, kGit, source);
        mainQueue.drain();  // the saves' reports to the application state
        if (mustSucceed) {
            EXPECT_EQ(result.status, 0) << script << "\n" << result.out;
        }
        return result;
    }
    std::string commitOfDev(int n) {
        auto out =
            git("git rev-list --first-parent --reverse dev | sed -n " + std::to_string(n) + "p")
                .out;
        return out.substr(0, 40);
    }
    testing::CommandResult push(const std::string& commit, bool mustSucceed = true) {
        return git("git push -q " + url(*server) + " " + commit + ":refs/heads/dev 2>&1",
                   mustSucceed);
    }
    std::string remoteDev() {
        auto out = git("git ls-remote " + url(*verifier) + " refs/heads/dev").out;
        return out.substr(0, 40);
    }
    // Clones into a fresh folder from the verifier with its cache emptied; true when complete.
    bool cleanCloneHas(const std::string& commit, int point) {
        std::filesystem::remove_all(verifierCache);
        auto into = dir.path() + "/clone" + std::to_string(point);
        auto result = git("git clone -q --bare " + url(*verifier) + " " + into + " && cd " + into +
                              " && git fsck --no-progress --strict && git cat-file -e " + commit,
                          false);
        std::filesystem::remove_all(into);
        return result.status == 0;
    }
};

TEST_P(PushFaults, EveryCloudOperationOfAPushMayFailAndNothingIsLost) {
    push(commitOfDev(100));
    // Measure the operations of one increment, as every later one makes about as many.
    int next = 100;
    auto increment = [&] {
        next += 3;
        return commitOfDev(next);
    };
    failOperationAt(0, FailWhen::never);
    push(increment());
    int count = operations;
    ASSERT_GE(count, 3);  // lookup, the stored pack saved, the repository saved

    int points = 0;
    int lost = 0;
    for (auto when : {FailWhen::atStart, FailWhen::insteadOfCommit, FailWhen::afterCommit}) {
        for (int at = 1; at <= count; ++at) {
            std::string before = remoteDev();
            std::string after = increment();
            failOperationAt(at, when);
            bool pushed = push(after, false).status == 0;
            failOperationAt(0, FailWhen::never);
            ++points;
            std::string now = remoteDev();
            std::string where = "operation " + std::to_string(at) + " of " + std::to_string(count) +
                                ", mode " + std::to_string(static_cast<int>(when));
            EXPECT_TRUE(now == before || now == after) << where;
            if (pushed) {
                EXPECT_EQ(now, after) << where;
            }
            if (!cleanCloneHas(now, points)) {
                ++lost;
                ADD_FAILURE() << "incomplete clone after " << where;
            }
            push(after);  // the daemon still serves, and the same push now succeeds
            EXPECT_EQ(remoteDev(), after) << where;
        }
    }
    EXPECT_TRUE(cleanCloneHas(remoteDev(), 0));
    EXPECT_EQ(lost, 0);
    RecordProperty("injection points", points);
    RecordProperty("lost objects", lost);
    std::printf("%d injection points, %d incomplete clones\n", points, lost);
}

INSTANTIATE_TEST_SUITE_P(Layouts, PushFaults, ::testing::Values(SIZE_MAX, 0),
                         [](const auto& layout) {
                             return layout.param == 0 ? std::string("BaseAndIncrements")
                                                      : std::string("WholeDocument");
                         });

}  // namespace
}  // namespace corvane
