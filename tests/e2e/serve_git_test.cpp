// Clone, fetch and push through the built `corvane serve` with the real git client.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <future>

#include "e2e/corvane_server.h"
#include "e2e/git_test_repo.h"

namespace corvane::testing {
namespace {

std::string rawPush() {
    return std::string(CORVANE_SOURCE_DIR) + "/tests/e2e/raw_push.py";
}

struct ServeGit : GitServerTest {
    std::string lsRemote(const std::string& name) {
        return sh(work.path(), "git ls-remote " + server.url(name));
    }
};

TEST_F(ServeGit, PushWholeHistoryThenCloneAndFetchIncrementally) {
    create("lz4");
    std::string source = dir("source");
    sh(source, "git clone -q --mirror " + sharedDir() +
                   "/testdata/lz4.bundle . && "
                   "git push -q --mirror " +
                   server.url("lz4") + " 2>&1");
    EXPECT_EQ(sh(work.path(), "git ls-remote --refs " + server.url("lz4")),
              sh(source,
                 "git for-each-ref --format='%(objectname)\t%(refname)' "
                 "refs/heads refs/tags"));

    std::string clone = dir("clone");
    sh(clone, "git clone -q " + server.url("lz4") + " . && git fsck --full --no-progress");
    // Git's economy all the way: the store, the cache and the clone hold the deltas as they
    // were pushed, no more bytes than git's own pack; a clone with a cold cache as well.
    auto number = [&](const std::string& where, const std::string& command) {
        return std::stol(trimmed(sh(where, command)));
    };
    auto packKiB = [&](const std::string& repository) {
        return number(repository, "git count-objects -v | sed -n 's/^size-pack: //p'");
    };
    long gitPack = packKiB(source);
    EXPECT_LE(packKiB(clone), gitPack * 11 / 10);
    EXPECT_LE(number(server.home(), "du -sk cache/corvane/Objects | cut -f1"), gitPack * 12 / 10);
    EXPECT_LE(number(server.home(), "du -sk data/corvane/cloud.sqlite | cut -f1"),
              gitPack * 12 / 10 + 1024);
    EXPECT_EQ(sh(clone,
                 "git for-each-ref --format='%(objectname) %(refname:lstrip=3)' "
                 "refs/remotes/origin | grep -v HEAD"),
              sh(source,
                 "git for-each-ref --format='%(objectname) %(refname:lstrip=2)' "
                 "refs/heads"));
    // No master: HEAD falls back to the first branch, and a work tree is checked out.
    EXPECT_EQ(trimmed(sh(clone, "git symbolic-ref HEAD")), "refs/heads/dev");
    EXPECT_EQ(trimmed(sh(clone, "git status --porcelain")), "");
    EXPECT_EQ(sh(clone, "git rev-parse HEAD^{tree}"), sh(source, "git rev-parse dev^{tree}"));

    // An older clone, then one new commit on top: a thin incremental push, then a fetch.
    std::string older = dir("older");
    sh(older, "git clone -q " + server.url("lz4") + " .");
    sh(clone, "echo change >> README.md && git commit -qam 'one more' && git push -q origin dev");
    // The fetch of a one-line change is a thin pack: the changed file comes as the delta it
    // was pushed as, on the version the older clone has (the pack as it came is kept to be
    // weighed: the client completes a thin pack with those bases before it stores it).
    sh(older,
       "GIT_TRACE_PACKFILE=$PWD/../fetched.pack git fetch -q origin && "
       "git merge -q --ff-only origin/dev && git fsck --no-progress");
    EXPECT_EQ(sh(older, "git rev-parse HEAD"), sh(clone, "git rev-parse HEAD"));
    EXPECT_LT(number(older, "stat -c %s ../fetched.pack"), 1024);

    // After the object cache is emptied, a push's delta bases come from the store.
    std::filesystem::remove_all(server.home() + "/cache/corvane/Objects");
    sh(clone,
       "sed -i 's/LZ4/LZ-4/' README.md && git commit -qam 'after emptying the cache' && "
       "git push -q origin dev");
    sh(older, "git pull -q --ff-only origin dev && git fsck --no-progress");
    EXPECT_EQ(sh(older, "git rev-parse HEAD"), sh(clone, "git rev-parse HEAD"));

    // A client with 40 commits of its own that the server lacks negotiates across batches.
    sh(older,
       "for i in $(seq 40); do echo $i > local.txt; git add local.txt; "
       "git commit -qm local$i; done");
    sh(clone,
       "echo remote > remote.txt && git add remote.txt && git commit -qm remote && "
       "git push -q origin dev");
    sh(older, "git fetch -q origin && git merge -q --no-edit origin/dev && git fsck --no-progress");
    EXPECT_EQ(trimmed(sh(older, "cat remote.txt")), "remote");

    // A cold cache fetches the stored packs, and a clone gets the same economy.
    server.process().stop(SIGTERM);
    std::filesystem::remove_all(server.home() + "/cache/corvane");
    server.restart(SIGTERM);
    std::string cold = dir("cold");
    sh(cold, "git clone -q --bare " + server.url("lz4") + " . && git fsck --strict --no-progress");
    EXPECT_LE(packKiB(cold), gitPack * 11 / 10);
}

TEST_F(ServeGit, ReferencesTagsDeletionsAndStalePushes) {
    create("refs");
    std::string a = dir("a");
    sh(a,
       "git init -q -b main . && echo one > f && git add f && git commit -qm one && "
       "git tag light && git tag -a -m annotated v1 && "
       "git push -q " +
           server.url("refs") +
           " main 2>&1 && "
           "git push -q --tags " +
           server.url("refs") + " 2>&1");
    std::string refs = lsRemote("refs");
    EXPECT_NE(refs.find("refs/tags/v1"), std::string::npos) << refs;
    EXPECT_NE(refs.find("refs/tags/light"), std::string::npos) << refs;
    EXPECT_EQ(trimmed(sh(a, "git ls-remote " + server.url("refs") + " refs/tags/v1 | cut -f1")),
              trimmed(sh(a, "git rev-parse v1")));

    // A new branch at an existing commit (empty pack), an atomic push of two references.
    sh(a, "git push -q " + server.url("refs") + " main:refs/heads/same 2>&1");
    sh(a,
       "echo two >> f && git commit -qam two && git branch side && "
       "git push -q --atomic " +
           server.url("refs") + " main side 2>&1");
    refs = lsRemote("refs");
    EXPECT_NE(refs.find(trimmed(sh(a, "git rev-parse side")) + "\trefs/heads/side"),
              std::string::npos);
    // Deleting a branch and a tag.
    sh(a, "git push -q " + server.url("refs") + " :refs/heads/same :refs/tags/light 2>&1");
    refs = lsRemote("refs");
    EXPECT_EQ(refs.find("refs/heads/same"), std::string::npos) << refs;
    EXPECT_EQ(refs.find("refs/tags/light"), std::string::npos) << refs;

    // Two clients push from the same old id: the one whose command arrives second is refused
    // and the reference keeps the first push's value.
    std::string old = trimmed(sh(a, "git rev-parse main"));
    sh(a,
       "git checkout -q -b other main && echo other >> f && git commit -qam other && "
       "printf '%s\\n^%s\\n' other main | git pack-objects -q --stdout --revs > other.pack && "
       "git checkout -q main");
    std::string go = work.path() + "/go";
    BackgroundProcess second({"python3", rawPush(), std::to_string(server.port()), "/refs", old,
                              trimmed(sh(a, "git rev-parse other")), "refs/heads/main",
                              a + "/other.pack", "--wait-for", go},
                             kGitEnvironment);
    ASSERT_TRUE(second.waitForOutput("advertised"));
    sh(a, "echo three >> f && git commit -qam three && git push -q " + server.url("refs") +
              " main 2>&1");
    std::string first = trimmed(sh(a, "git rev-parse main"));
    std::ofstream(go) << "go";
    EXPECT_EQ(second.wait(), 0);
    EXPECT_NE(second.output().find("Remote repository has been updated"), std::string::npos)
        << second.output();
    EXPECT_NE(lsRemote("refs").find(first + "\trefs/heads/main"), std::string::npos);
}

TEST_F(ServeGit, ContentEdgeCasesSurviveByteForByte) {
    create("edge");
    std::string a = dir("a");
    sh(a,
       "git init -q -b master . && : > empty && head -c 20000000 /dev/urandom > big.bin && "
       "echo x > 'with space' && echo y > 'näme ünicode' && printf '#!/bin/sh\\n' > run.sh && "
       "chmod +x run.sh && ln -s run.sh link && mkdir -p a/b/c/d/e/f/g/h && "
       "echo deep > a/b/c/d/e/f/g/h/leaf && git add . && "
       "git update-index --add --cacheinfo 160000,1234567890123456789012345678901234567890,sub && "
       "git commit -qm edge && git push -q " +
           server.url("edge") + " master 2>&1");
    std::string b = dir("b");
    sh(b, "git clone -q " + server.url("edge") + " . 2>&1 && git fsck --full --no-progress");
    EXPECT_EQ(sh(b, "git ls-tree -r HEAD"), sh(a, "git ls-tree -r HEAD"));
    EXPECT_EQ(sh(b, "cmp big.bin " + a +
                        "/big.bin && stat -c %s empty && test -x run.sh && "
                        "readlink link && cat 'näme ünicode' a/b/c/d/e/f/g/h/leaf"),
              "0\nrun.sh\ny\ndeep\n");
}

TEST_F(ServeGit, ParallelClonesAgreeAndFailuresLeaveReferencesAlone) {
    create("par");
    std::string a = dir("a");
    sh(a,
       "git init -q -b master . && for i in $(seq 30); do echo $i > f$i; done && "
       "git add . && git commit -qm many && git push -q " +
           server.url("par") + " master 2>&1");
    std::vector<std::future<std::string>> clones;
    for (int i = 0; i < 8; ++i) {
        clones.push_back(std::async(std::launch::async, [&, i] {
            std::string target = dir("clone" + std::to_string(i));
            sh(target, "git clone -q " + server.url("par") + " . && git fsck --no-progress");
            return sh(target, "git rev-parse HEAD^{tree}");
        }));
    }
    std::string tree = sh(a, "git rev-parse HEAD^{tree}");
    for (auto& clone : clones)
        EXPECT_EQ(clone.get(), tree);

    auto unknown = shTry(a, "git ls-remote " + server.url("nothing-here") + " 2>&1");
    EXPECT_NE(unknown.status, 0);

    // A push whose pack is cut off half-way changes no reference, and serving goes on.
    std::string before = lsRemote("par");
    sh(a,
       "echo more > more && git add more && git commit -qm more && "
       "printf '%s\\n^%s\\n' HEAD HEAD~1 | git pack-objects -q --stdout --revs > more.pack");
    std::string old = trimmed(sh(a, "git rev-parse HEAD~1"));
    std::string updated = trimmed(sh(a, "git rev-parse HEAD"));
    auto size = std::filesystem::file_size(a + "/more.pack");
    auto cut =
        runCommand({"python3", rawPush(), std::to_string(server.port()), "/par", old, updated,
                    "refs/heads/master", a + "/more.pack", "--cut", std::to_string(size / 2)});
    EXPECT_EQ(cut.status, 0) << cut.out;
    EXPECT_TRUE(server.process().waitForOutput("EOF"));
    EXPECT_EQ(lsRemote("par"), before);
    // A corrupted pack changes nothing either.
    sh(a,
       "cp more.pack bad.pack && printf 'garbage!' | dd of=bad.pack bs=1 seek=40 conv=notrunc "
       "2>/dev/null");
    auto bad = runCommand({"python3", rawPush(), std::to_string(server.port()), "/par", old,
                           updated, "refs/heads/master", a + "/bad.pack"});
    EXPECT_EQ(lsRemote("par"), before);
    sh(a, "git push -q " + server.url("par") + " master 2>&1");
    EXPECT_NE(lsRemote("par").find(updated), std::string::npos);
}

TEST_F(ServeGit, CommandLineCreateListDelete) {
    create("alpha");
    create("beta");
    auto listed = server.run({CORVANE_BINARY, "list"});
    EXPECT_EQ(listed.status, 0) << listed.out;
    EXPECT_NE(listed.out.find("alpha"), std::string::npos);
    EXPECT_NE(listed.out.find("beta"), std::string::npos);
    auto again = server.run({CORVANE_BINARY, "create", "alpha"});
    EXPECT_NE(again.status, 0);
    EXPECT_NE(again.out.find("alpha"), std::string::npos) << again.out;
    auto removed = server.run({CORVANE_BINARY, "delete", "alpha"});
    EXPECT_EQ(removed.status, 0) << removed.out;
    EXPECT_EQ(server.run({CORVANE_BINARY, "list"}).out.find("alpha"), std::string::npos);
    auto unknown = server.run({CORVANE_BINARY, "delete", "nope"});
    EXPECT_NE(unknown.status, 0);
    EXPECT_NE(unknown.out.find("nope"), std::string::npos) << unknown.out;
}

}  // namespace
}  // namespace corvane::testing
