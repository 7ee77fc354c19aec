// Nothing pushed is lost: racing pushes, a daemon killed in the middle of a push, damaged cache
// files, repositories made by another process, and packs consolidated in the background or by a
// repack killed on its way, each checked with the real git client against a daemon whose object
// cache starts empty.
#include <gtest/gtest.h>
#include <signal.h>

#include <future>
#include <sstream>

#include "e2e/corvane_server.h"
#include "e2e/git_test_repo.h"

namespace corvane::testing {
namespace {

struct PushSafety : GitServerTest {
    // The daemon again, with an empty object cache: what it serves comes from the store alone.
    void restartCold(int signal) {
        server.process().stop(signal);
        std::filesystem::remove_all(server.home() + "/cache/corvane");
        server.restart(signal);
    }
    // A fresh clone, checked by fsck; returns the commit of `branch` in it.
    std::string cloneAndCheck(const std::string& name, const std::string& branch) {
        static int clones = 0;
        std::string into = dir("clone" + std::to_string(++clones));
        sh(into,
           "git clone -q --bare " + server.url(name) + " . && git fsck --strict --no-progress");
        return trimmed(sh(into, "git rev-parse " + branch));
    }
    std::string remoteRef(const std::string& name, const std::string& ref) {
        return trimmed(sh(work.path(), "git ls-remote " + server.url(name) + " " + ref))
            .substr(0, 40);
    }
};

TEST_F(PushSafety, RacingPushesKeepTheWinnersObjectsAndNewRepositoriesShowAtOnce) {
    create("race");
    std::string base = dir("base");
    sh(base,
       "git init -q && echo base > base.txt && git add . && git commit -qm base && "
       "git push -q " +
           server.url("race") + " HEAD:refs/heads/main");
    std::vector<std::string> clients;
    for (int i = 0; i < 4; ++i) {
        std::string client = dir("client" + std::to_string(i));
        sh(client, "git clone -q " + server.url("race") +
                       " . && for f in $(seq 300); do "
                       "echo \"" +
                       std::to_string(i) + " $f\" > f" + std::to_string(i) +
                       "-$f.txt; done && git add . && git commit -qm client" + std::to_string(i));
        clients.push_back(client);
    }
    // Two clients push through this daemon, two through another process on the same store.
    CorvaneServer other(server.home() + "/data");
    std::vector<std::future<CommandResult>> pushes;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        std::string url = (i % 2 ? other : server).url("race");
        pushes.push_back(std::async(std::launch::async, [&, i, url] {
            return shTry(clients[i], "git push " + url + " HEAD:main 2>&1");
        }));
    }
    int won = 0;
    std::string winner;
    for (std::size_t i = 0; i < pushes.size(); ++i) {
        auto result = pushes[i].get();
        if (result.status == 0) {
            ++won;
            winner = trimmed(sh(clients[i], "git rev-parse HEAD"));
        } else {
            EXPECT_NE(result.out.find("Remote repository has been updated"), std::string::npos)
                << result.out;
        }
    }
    ASSERT_EQ(won, 1);

    // Created by another process while the daemon runs: usable at once, however many.
    for (const auto* name : {"made-1", "made-2", "made-3"}) {
        create(name);
        EXPECT_EQ(shTry(work.path(), "git ls-remote " + server.url(name)).status, 0) << name;
    }
    sh(base, "git push -q " + server.url("made-3") + " HEAD:refs/heads/main");
    EXPECT_EQ(remoteRef("made-3", "refs/heads/main"), trimmed(sh(base, "git rev-parse HEAD")));

    restartCold(SIGTERM);
    EXPECT_EQ(cloneAndCheck("race", "main"), winner);

    // Damaged cache files (cut short, overwritten: stored packs' data and indexes, and loose
    // files) are fetched again; the clone never fails.
    int damaged = 0;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(server.home() + "/cache/corvane/Objects")) {
        if (!entry.is_regular_file() || damaged >= 40) continue;
        if (damaged++ % 2) {
            std::filesystem::resize_file(entry.path(), entry.file_size() / 2);
        } else {
            std::ofstream(entry.path(), std::ios::trunc) << "garbage";
        }
    }
    EXPECT_GE(damaged, 2);
    EXPECT_EQ(cloneAndCheck("race", "main"), winner);
}

TEST_F(PushSafety, ADaemonKilledInAPushLosesNothing) {
    std::string source = dir("source");
    sh(source, "git clone -q --mirror " + sharedDir() + "/testdata/lz4.bundle .");
    // A part of the history big enough for a push of some ten groups of pack records.
    std::string tip =
        trimmed(sh(source, "git rev-list --first-parent --reverse dev | sed -n 150p"));
    sh(source, "git branch -f part " + tip);
    // Moments of the push: uploading packs, after the first group, saving the references.
    const char* points[] = {">> saving ", "<< saved ", ">> saving repository"};
    int point = 0;
    int interrupted = 0;  // kills that landed before the references moved
    for (const auto* moment : points) {
        std::string name = "killed" + std::to_string(point++);
        create(name);
        // Each waits for its own moment of this push: the log so far is older.
        auto seen = server.process().output().size();
        auto push = std::async(std::launch::async, [&] {
            return shTry(source, "git push -q " + server.url(name) + " part:dev 2>&1");
        });
        bool reached = false;
        for (int i = 0; i < 2000 && !reached; ++i) {
            reached = server.process().output().find(moment, seen) != std::string::npos;
            if (!reached) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_TRUE(reached) << moment;
        restartCold(SIGKILL);
        push.get();

        std::string now = remoteRef(name, "refs/heads/dev");
        EXPECT_TRUE(now.empty() || now == tip) << moment << ": " << now;
        interrupted += now.empty();
        if (!now.empty()) {
            EXPECT_EQ(cloneAndCheck(name, "dev"), tip) << moment;
        }
        sh(source, "git push -q " + server.url(name) + " part:dev 2>&1");
        restartCold(SIGTERM);
        EXPECT_EQ(cloneAndCheck(name, "dev"), tip) << moment;
    }
    EXPECT_GE(interrupted, 1);
    RecordProperty("pushes interrupted", interrupted);
}

TEST_F(PushSafety, PacksConsolidateAfterPushesAndARepackKilledAnywhereLosesNothing) {
    std::string source = dir("source");
    sh(source, "git clone -q --mirror " + sharedDir() + "/testdata/lz4.bundle .");
    create("team");
    // A team's pushes of a few dozen commits each: small packs, whose deltas lean on earlier ones.
    std::istringstream steps(
        sh(source, "git rev-list --first-parent --reverse dev | awk 'NR % 60 == 0' | head -n 9"));
    std::string tip;
    for (std::string commit; std::getline(steps, commit); tip = commit)
        sh(source, "git push -q " + server.url("team") + " " + commit + ":refs/heads/dev");
    EXPECT_TRUE(server.process().waitForOutput(" packs retired", std::chrono::seconds(60)));
    restartCold(SIGTERM);
    EXPECT_EQ(cloneAndCheck("team", "dev"), tip);
    std::string clone = dir("fetching");
    sh(clone, "git clone -q " + server.url("team") + " . && git checkout -q dev");

    // A repack killed while it uploads, after it uploaded, and while it switches the metadata
    // over: the repository as before or as after, whole either way. Each starts after a push,
    // so that there are packs to take whichever way the kill before went.
    auto push = [&](int commit) {
        tip = trimmed(sh(source, "git rev-list --first-parent --reverse dev | sed -n " +
                                     std::to_string(commit) + "p"));
        sh(source, "git push -q " + server.url("team") + " " + tip + ":refs/heads/dev");
    };
    int commit = 570;
    for (const char* moment : {">> saving pack P", "<< saved pack P", ">> saving repository"}) {
        push(commit += 10);
        BackgroundProcess repack({CORVANE_BINARY, "--verbose", "repack", "team"},
                                 server.environment());
        EXPECT_TRUE(repack.waitForOutput(moment, std::chrono::seconds(60))) << repack.output();
        repack.stop(SIGKILL);
        restartCold(SIGTERM);
        EXPECT_EQ(cloneAndCheck("team", "dev"), tip) << moment;
    }
    push(commit += 10);
    auto repacked = server.run({CORVANE_BINARY, "repack", "team"});
    EXPECT_EQ(repacked.status, 0) << repacked.out;
    EXPECT_TRUE(repacked.out.starts_with("Repacked ")) << repacked.out;
    EXPECT_EQ(trimmed(server.run({CORVANE_BINARY, "repack", "team"}).out),
              "Nothing to repack: 1 pack");
    // The daemon's next clone drops the retired packs from its cache: the cache keeps one copy.
    cloneAndCheck("team", "dev");
    std::size_t cachedPacks = 0;
    for (const auto& file :
         std::filesystem::directory_iterator(server.home() + "/cache/corvane/Objects/stored"))
        cachedPacks += file.path().extension() == ".idx";
    EXPECT_EQ(cachedPacks, 1u);
    restartCold(SIGTERM);
    EXPECT_EQ(cloneAndCheck("team", "dev"), tip);
    // A clone made before fetches the next commit: a thin pack on the repacked deltas.
    push(commit += 10);
    sh(clone,
       "git pull -q --ff-only " + server.url("team") + " dev && git fsck --strict --no-progress");
    EXPECT_EQ(trimmed(sh(clone, "git rev-parse HEAD")), tip);
}

TEST_F(PushSafety, AVersion2RepositoryIsServedThenConvertedByItsNextPush) {
    std::string source = dir("source");
    sh(source, "git clone -q --mirror " + sharedDir() + "/testdata/lz4.bundle .");
    auto nth = [&](int commit) {
        return trimmed(sh(source, "git rev-list --first-parent --reverse dev | sed -n " +
                                      std::to_string(commit) + "p"));
    };
    std::string old = nth(300);
    sh(source, "git branch -f part " + old);
    std::string legacy = dir("legacy");
    sh(legacy, "git clone -q --bare --no-local --single-branch -b part " + source + " .");
    create("old");
    auto written = server.run({CORVANE_LEGACY_REPOSITORY, "old", legacy}, legacy);
    ASSERT_EQ(written.status, 0) << written.out;
    restartCold(SIGTERM);
    EXPECT_EQ(cloneAndCheck("old", "part"), old);
    std::string clone = dir("fetching");
    sh(clone, "git clone -q " + server.url("old") + " .");

    // Its next push converts it in the background: whole objects become deltas, the pushed
    // pack's deltas lean on them, and git reads it all back.
    std::string tip = nth(400);
    sh(source, "git push -q " + server.url("old") + " " + tip + ":refs/heads/part");
    EXPECT_TRUE(server.process().waitForOutput(" packs retired", std::chrono::seconds(120)));
    restartCold(SIGTERM);
    EXPECT_EQ(cloneAndCheck("old", "part"), tip);
    sh(clone,
       "git pull -q --ff-only " + server.url("old") + " part && git fsck --strict --no-progress");
    EXPECT_EQ(trimmed(sh(clone, "git rev-parse HEAD")), tip);
    // Two packs remain, the converted one and the pushed one; a repack makes them one.
    auto repacked = server.run({CORVANE_BINARY, "repack", "old"});
    EXPECT_EQ(trimmed(repacked.out), "Repacked 2 packs into 1");
    restartCold(SIGTERM);
    EXPECT_EQ(cloneAndCheck("old", "part"), tip);
}

}  // namespace
}  // namespace corvane::testing
