// A member of a team store attacks it with plain SQL on their own login, the password `store
// add-person` printed them, over TCP: shadowing the store's names with temporary objects,
// moving their rows into another's zone, reading contents by reference, squatting ids,
// leaving pieces and contents behind, coming back after removal, and reaching into another
// store on the same server. Each attack is judged by its effect, as the people see it: the
// attacker's `corvane list` and clone, the owner's next create and push, and the role
// memberships the administrator sees. Runs when CORVANE_TEST_POSTGRES names a server.
#include <gtest/gtest.h>

#include <cstdlib>

#include "e2e/git_test_repo.h"
#include "e2e/team_store_fixture.h"

namespace corvane::testing {
namespace {

// Runs the statements as the attacker; true when the server carried them out.
bool attack(const std::string& cloud, const std::string& statements) {
    return TeamStore::sql(cloud, statements).status == 0;
}

TEST(TeamAttacks, AMemberReachesNothingThatWasNotSharedWithThem) {
    const char* server = std::getenv("CORVANE_TEST_POSTGRES");
    if (!server || !*server) GTEST_SKIP() << "CORVANE_TEST_POSTGRES names no PostgreSQL server";
    TeamStore store(server);
    Person ada(store.addPerson("ada", "ada@example.com", "Ada Lovelace"));
    Person mallory(store.addPerson("mallory", "mallory@example.com", "Mallory Bad"));
    TempDir work;
    auto adaWork = work.path() + "/ada";
    std::filesystem::create_directories(adaWork);
    ada.corvaneOk({"create", "secret-plans"});
    sh(adaWork,
       "git init -q -b main && echo 'the formula' > secret.txt && git add . && "
       "git commit -qm secret && git push -q " +
           ada.daemon.url("secret-plans") + " main");
    auto adaName =
        firstMatch(ada.corvaneOk({"whoami"}), "_[0-9a-f]{32}");  // the owner's record name
    std::string theirs = adaName + "/secret-plans";
    mallory.corvaneOk({"create", "mine"});
    const auto& cloud = mallory.cloud;

    // Temporary objects to stand in for the store's tables or to run code as the
    // administrator: nothing temporary can be made at all.
    EXPECT_FALSE(attack(cloud, "CREATE TEMP TABLE accounts (id BIGINT, role_name TEXT)"));
    EXPECT_FALSE(
        attack(cloud, "CREATE FUNCTION pg_temp.f() RETURNS INT LANGUAGE sql AS 'SELECT 1'"));
    EXPECT_FALSE(attack(cloud, "CREATE TABLE public.accounts (id BIGINT)"));
    // Rows moved into another's zone, ids taken ahead, contents read by reference or by name.
    EXPECT_FALSE(attack(cloud, "UPDATE corvane.participants SET zone_id = zone_id + 1"));
    EXPECT_FALSE(attack(cloud, "SELECT nextval(pg_get_serial_sequence('corvane.zones', 'id'))"));
    EXPECT_FALSE(attack(cloud,
                        "INSERT INTO corvane.zones (owner_id, name, created) "
                        "VALUES (1, 'squat', 0)"));
    EXPECT_FALSE(attack(cloud, "SELECT hash FROM corvane.assets"));
    EXPECT_FALSE(attack(cloud, "DELETE FROM corvane.assets"));
    EXPECT_FALSE(attack(cloud, "SELECT * FROM corvane.read_contents(3, '" + adaName +
                                   "', encode(sha256('secret-plans'), 'hex'), NULL, '{}')"));
    // Pieces or contents no record uses: refused at commit, nothing stays.
    EXPECT_FALSE(attack(cloud,
                        "SELECT corvane.store_contents(2, '__defaultOwner__', "
                        "encode(sha256('mine'), 'hex'), ARRAY[encode(sha256('x'), 'hex')], "
                        "ARRAY[1]::BIGINT[], ARRAY[0]::BIGINT[], ARRAY['x'::BYTEA])"));
    EXPECT_FALSE(attack(cloud,
                        "SELECT corvane.store_contents(2, '__defaultOwner__', "
                        "encode(sha256('mine'), 'hex'), ARRAY[encode(sha256('xy'), 'hex')], "
                        "ARRAY[2]::BIGINT[], ARRAY[0]::BIGINT[], ARRAY['x'::BYTEA])"));
    auto admin = store.address();
    EXPECT_EQ(TeamStore::psql(admin,
                              "SELECT (SELECT count(*) FROM corvane.asset_chunks k "
                              "WHERE NOT EXISTS (SELECT 1 FROM corvane.asset_refs r "
                              "WHERE r.zone_id = k.zone_id AND r.hash = k.hash)) + "
                              "(SELECT count(*) FROM corvane.zones WHERE name = 'squat')"),
              "0");

    // Seen from outside: the attacker has only their own, reaches nothing of the owner's, and
    // nobody gained the administrator's rights; the owner creates and pushes as before.
    EXPECT_EQ(trimmed(mallory.corvaneOk({"list"})), "mine\tgit://localhost/mine");
    EXPECT_NE(
        shTry(work.path(), "git clone -q " + mallory.daemon.url(theirs) + " stolen 2>&1").status,
        0);
    EXPECT_EQ(TeamStore::psql(admin, "SELECT pg_has_role('" + store.role("mallory") +
                                         "', current_user, 'MEMBER')"),
              "f");
    ada.corvaneOk({"create", "next"});
    sh(adaWork, "echo more >> secret.txt && git commit -qam more && git push -q " +
                    ada.daemon.url("secret-plans") + " main");

    // Invited, accepted and removed, the attacker cannot answer the link again.
    auto link = firstMatch(ada.corvaneOk({"invite", "secret-plans", "mallory@example.com"}),
                           "corvane://share/[0-9a-f]+#secret-plans");
    mallory.corvaneOk({"join", link});
    sh(work.path(), "git clone -q " + mallory.daemon.url(theirs) + " joined");
    ada.corvaneOk({"uninvite", "secret-plans", "mallory@example.com"});
    auto token = link.substr(link.find("share/") + 6, 32);
    EXPECT_FALSE(attack(cloud, "SELECT corvane.accept_share('" + token + "')"));
    EXPECT_NE(mallory.corvane({"join", link}).status, 0);
    EXPECT_EQ(trimmed(mallory.corvaneOk({"list"})), "mine\tgit://localhost/mine");
    EXPECT_NE(shTry(work.path() + "/joined", "git fetch -q 2>&1").status, 0);

    // A person of this store is nobody in another store on the same server.
    TeamStore other(server, "other");
    other.addPerson("carol", "carol@example.com", "Carol Jones");
    auto elsewhere = cloud;
    elsewhere.replace(elsewhere.rfind('/') + 1, std::string::npos, other.database());
    auto reach = TeamStore::sql(elsewhere,
                                "SELECT * FROM corvane.look_up_person("
                                "'carol@example.com')");
    EXPECT_NE(reach.status, 0);
    EXPECT_NE(reach.out.find("permission denied for database"), std::string::npos) << reach.out;
}

}  // namespace
}  // namespace corvane::testing
