// Two people on two machines share a repository through one team store on PostgreSQL: each
// has a daemon, an object cache and a database role of their own, and a third person of the
// same store must see nothing of it. Runs when CORVANE_TEST_POSTGRES names a server.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <regex>

#include "e2e/git_test_repo.h"
#include "e2e/team_store_fixture.h"

namespace corvane::testing {
namespace {

TEST(TeamSharing, TwoPeopleShareOneRepositoryAndAThirdSeesNothing) {
    const char* server = std::getenv("CORVANE_TEST_POSTGRES");
    if (!server || !*server) GTEST_SKIP() << "CORVANE_TEST_POSTGRES names no PostgreSQL server";
    TeamStore store(server);
    Person ada(store.addPerson("ada", "ada@example.com", "Ada Lovelace"));
    Person bob(store.addPerson("bob", "bob@example.com", "Bob Builder"));
    std::string carolCloud = store.addPerson("carol", "carol@example.com", "Carol Jones");
    TempDir work;
    auto dir = [&](const std::string& name) {
        std::filesystem::create_directories(work.path() + "/" + name);
        return work.path() + "/" + name;
    };

    // The owner creates, pushes and invites.
    EXPECT_EQ(trimmed(ada.corvaneOk({"create", "tools"})), "git://localhost/tools");
    std::string adaWork = dir("ada");
    sh(adaWork,
       "git init -q -b main && echo one > one.txt && git add . && git commit -qm one && "
       "git push -q " +
           ada.daemon.url("tools") + " main");
    std::string link = firstMatch(ada.corvaneOk({"invite", "tools", "bob@example.com"}),
                                  "corvane://share/[0-9a-f]+#tools");
    EXPECT_NE(
        ada.corvaneOk({"contributors", "tools"}).find("Bob Builder\tbob@example.com\tpending"),
        std::string::npos);

    // The invitee joins by the link, clones through their own daemon and pushes.
    std::string shared = trimmed(bob.corvaneOk({"join", link}));
    std::string path = firstMatch(shared, "_[0-9a-f]{32}/tools");
    EXPECT_EQ(shared, "git://localhost/" + path);
    EXPECT_NE(bob.corvaneOk({"list"}).find(path + "\t" + shared), std::string::npos);
    EXPECT_NE(ada.corvaneOk({"contributors", "tools"}).find("bob@example.com\taccepted"),
              std::string::npos);
    std::string bobWork = dir("bob");
    sh(bobWork, "git clone -q " + bob.daemon.url(path) +
                    " . && echo two > two.txt && git add . && git commit -qm two && git push -q");
    std::string bobsCommit = trimmed(sh(bobWork, "git rev-parse HEAD"));
    sh(adaWork, "git pull -q --ff-only " + ada.daemon.url("tools") + " main");
    EXPECT_EQ(trimmed(sh(adaWork, "git rev-parse HEAD")), bobsCommit);

    // Both push at once, each many new objects on a branch of their own, three times over:
    // every branch arrives whole, in a clone by either daemon.
    for (int round = 0; round < 3; ++round) {
        std::string r = std::to_string(round);
        sh(adaWork, "git checkout -q -B ada" + r + " main && for f in $(seq 200); do echo a" + r +
                        " $f > a" + r + "-$f.txt; done && git add . && git commit -qm a" + r);
        sh(bobWork, "git checkout -q -B bob" + r + " main && for f in $(seq 200); do echo b" + r +
                        " $f > b" + r + "-$f.txt; done && git add . && git commit -qm b" + r);
        auto adaPush = std::async(std::launch::async, [&] {
            return shTry(adaWork, "git push " + ada.daemon.url("tools") + " ada" + r + " 2>&1");
        });
        auto bobPush = std::async(std::launch::async, [&] {
            return shTry(bobWork, "git push " + bob.daemon.url(path) + " bob" + r + " 2>&1");
        });
        auto adaResult = adaPush.get();
        auto bobResult = bobPush.get();
        EXPECT_EQ(adaResult.status, 0) << adaResult.out;
        EXPECT_EQ(bobResult.status, 0) << bobResult.out;
    }
    std::string check = dir("check");
    sh(check,
       "git clone -q --mirror " + bob.daemon.url(path) + " . && git fsck --strict --no-progress");
    for (const char* who : {"ada", "bob"}) {
        for (int round = 0; round < 3; ++round) {
            std::string branch = who + std::to_string(round);
            EXPECT_EQ(trimmed(sh(check, "git rev-parse " + branch)),
                      trimmed(sh(std::string(who) == "ada" ? adaWork : bobWork,
                                 "git rev-parse " + branch)));
        }
    }

    // A third person of the store sees nothing: not by the product, not by SQL as their role.
    Person carol(carolCloud);
    EXPECT_EQ(trimmed(carol.corvaneOk({"list"})), "");
    auto carolClone = shTry(dir("carol"), "git ls-remote " + carol.daemon.url(path) + " 2>&1");
    EXPECT_NE(carolClone.status, 0);
    auto tables = TeamStore::sql(carolCloud, "SELECT count(*) FROM corvane.zones");
    EXPECT_NE(tables.status, 0);
    EXPECT_NE(tables.out.find("permission denied"), std::string::npos) << tables.out;
    auto join = carol.corvane({"join", "corvane://share/00000000000000000000000000000000#tools"});
    EXPECT_EQ(join.status, 1);
    EXPECT_NE(join.out.find("Failed to join repository: "), std::string::npos) << join.out;

    // The owner removes the invitee, whose next fetch and push fail; the daemon says why (a
    // client hears nothing before it has asked for a side-band).
    ada.corvaneOk({"uninvite", "tools", "bob@example.com"});
    EXPECT_NE(shTry(bobWork, "git fetch -q " + bob.daemon.url(path)).status, 0);
    sh(bobWork, "echo three > three.txt && git add . && git commit -qm three");
    EXPECT_NE(shTry(bobWork, "git push -q " + bob.daemon.url(path) + " HEAD:main").status, 0);
    EXPECT_TRUE(bob.daemon.process().waitForOutput("shared repository tools does not exist"));
    EXPECT_EQ(trimmed(bob.corvaneOk({"list"})), "");
    EXPECT_EQ(
        trimmed(sh(adaWork, "git ls-remote " + ada.daemon.url("tools") + " main")).substr(0, 40),
        bobsCommit);
}

}  // namespace
}  // namespace corvane::testing
