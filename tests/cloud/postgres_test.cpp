// The PostgreSQL engine itself: parameters and types on the wire, the codes of failed logins
// and lost connections, and the addresses handed to a team's people.
#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;

class PostgresTest : public CloudTest {
  protected:
    void SetUp() override {
        CloudTest::SetUp();
        if (!testing::onPostgres()) GTEST_SKIP() << "needs the PostgreSQL engine";
    }

    int codeOf(const std::function<void()>& attempt) {
        try {
            attempt();
        } catch (const CloudError& error) {
            return error.code();
        }
        return 0;
    }
};

TEST(PostgresParameters, AreNumberedOutsideQuotesOnly) {
    EXPECT_EQ(
        numberedParameters("SELECT '?', ? FROM t WHERE a = ? AND b = 'it''s ?' AND \"?\" = ?"),
        "SELECT '?', $1 FROM t WHERE a = $2 AND b = 'it''s ?' AND \"?\" = $3");
}

TEST_F(PostgresTest, EveryTypeTravelsBothWays) {
    auto connection = adminConnection();
    Bytes bytes{0, 1, 0xff, 0};
    std::string text = "Ärger \xe2\x9c\x93";
    bool seen = false;
    connection->execute(
        "SELECT CAST(? AS BIGINT), CAST(? AS BIGINT), CAST(? AS TEXT), CAST(? AS BYTEA), "
        "CAST(? AS BYTEA), CAST(? AS TEXT), COUNT(*) FROM settings",
        {std::int64_t{-9223372036854775807 - 1}, std::int64_t{9223372036854775807}, text,
         ByteView(bytes), ByteView(), std::monostate{}},
        [&](const SqlRow& row) {
            seen = true;
            EXPECT_EQ(row.integer(0), std::numeric_limits<std::int64_t>::min());
            EXPECT_EQ(row.integer(1), std::numeric_limits<std::int64_t>::max());
            EXPECT_EQ(row.text(2), text);
            EXPECT_EQ(Bytes(row.blob(3).begin(), row.blob(3).end()), bytes);
            EXPECT_TRUE(row.blob(4).empty());
            EXPECT_FALSE(row.isNull(4));
            EXPECT_TRUE(row.isNull(5));
            EXPECT_EQ(row.integer(6), 1);
        });
    EXPECT_TRUE(seen);
    EXPECT_EQ(connection->execute("UPDATE settings SET value = value"), 1);
    EXPECT_EQ(codeOf([&] { connection->execute("SELECT CAST(? AS TEXT) + 1", {"x"}); }),
              kInternalError);
}

TEST_F(PostgresTest, LoginsAndLostConnectionsEndInTheirCodes) {
    ContainerOptions options;
    options.assetCacheDirectory = cacheDirectory();
    auto firstUse = [&](const std::string& address) {
        return codeOf([&] {
            Container::connect(address, options)->sharedCloudDatabase().fetchAllRecordZones();
        });
    };
    // A server that is not there, a role it does not know, a database nobody set up.
    EXPECT_EQ(firstUse("host=/nonexistent/folder dbname=x"), kNetworkUnavailable);
    EXPECT_EQ(firstUse(roleAddress("t_nobody_known")), kNotAuthenticated);
    EXPECT_EQ(firstUse(roleAddress("corvane_admin") + " dbname=postgres"), kBadContainer);

    // A role that is not a person of the store is refused until it becomes one; the same
    // container then signs in, with no restart.
    adminConnection()->execute("DROP ROLE IF EXISTS t_outsider");
    adminConnection()->execute("CREATE ROLE t_outsider LOGIN");
    auto outsider = Container::connect(roleAddress("t_outsider"), options);
    EXPECT_EQ(codeOf([&] { outsider->currentUserIdentity(); }), kNotAuthenticated);
    EXPECT_FALSE(
        addPerson(*adminConnection(), NewPerson{"t_outsider", "otto@example.com", "Otto"}));
    EXPECT_EQ(outsider->currentUserIdentity().emailAddress, "otto@example.com");

    auto ann = openAs("ann@example.com");
    auto& database = ann->privateCloudDatabase();
    database.saveRecordZone(ZoneId{"z"});
    // The server ends the session (a restart, a failover): one failure, then a new connection.
    adminConnection()->execute(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = ? AND "
        "datname = current_database()",
        {testing::roleFor("ann@example.com")});
    EXPECT_EQ(codeOf([&] { database.fetchAllRecordZones(); }), kNetworkFailure);
    EXPECT_EQ(database.fetchAllRecordZones().size(), 1u);
}

TEST_F(PostgresTest, APersonsAddressReachesTheStoreAsThatPerson) {
    auto admin = roleAddress("corvane_admin");
    openAs("bea@example.com");
    auto address = memberAddress(admin, testing::roleFor("bea@example.com"), "p@ss word");
    EXPECT_TRUE(address.starts_with("postgresql://t_bea_example_com:p%40ss%20word@%2F"));
    ContainerOptions options;
    options.assetCacheDirectory = cacheDirectory();
    auto bea = Container::connect(address, options);
    EXPECT_EQ(bea->currentUserIdentity().emailAddress, "bea@example.com");
    EXPECT_EQ(codeOf([&] { memberAddress("host=x nonsense", "r", "p"); }), kInvalidArguments);
}

TEST_F(PostgresTest, AddingPeopleChecksWhatItIsGiven) {
    auto admin = adminConnection();
    admin->execute("DROP ROLE IF EXISTS t_dora");  // roles outlive the databases of earlier runs
    EXPECT_TRUE(addPerson(*admin, NewPerson{"t_dora", "dora@example.com", "Dora Tester"}));
    // Again: the same role keeps its password; the name may change.
    EXPECT_FALSE(addPerson(*admin, NewPerson{"t_dora", "dora@example.com", "Dora Maar"}));
    auto account = findAccountByEmail(*admin, "DORA@example.com");
    ASSERT_TRUE(account);
    EXPECT_EQ(account->name.familyName, "Maar");
    for (const auto& bad : {NewPerson{"t_eve", "dora@example.com", "Eve"},
                            NewPerson{"Robert'); DROP TABLE accounts; --", "r@example.com", "R"},
                            NewPerson{"pg_signal_backend", "p@example.com", "P"},
                            NewPerson{"t_eve", "no address", "Eve"}})
        EXPECT_EQ(codeOf([&] { addPerson(*admin, bad); }), kInvalidArguments) << bad.role;

    // Roles belong to the whole server: two stores on it adding the same person at the same
    // moment both succeed, and exactly one of them made the role (and knows its password).
    std::string server = std::getenv("CORVANE_TEST_POSTGRES");
    std::string other = "corvane_race_" + std::to_string(::getpid());
    PostgresConnection::open(server)->execute("CREATE DATABASE " + other);
    auto otherAdmin = PostgresConnection::open(server + " dbname=" + other);
    initTeamStore(*otherAdmin);
    for (int round = 0; round < 8; ++round) {
        std::string role = "t_race_" + std::to_string(round);
        admin->execute("DROP ROLE IF EXISTS " + role);
        std::optional<std::string> passwords[2];
        std::string failures[2];
        auto add = [&](int side, Connection& store) {
            try {
                passwords[side] = addPerson(store, NewPerson{role, role + "@example.com", "R"});
            } catch (const std::exception& error) {
                failures[side] = error.what();
            }
        };
        std::thread first(add, 0, std::ref(*admin));
        add(1, *otherAdmin);
        first.join();
        EXPECT_EQ(failures[0] + failures[1], "");
        EXPECT_NE(passwords[0].has_value(), passwords[1].has_value()) << role;
    }
    otherAdmin.reset();
    PostgresConnection::open(server)->execute("DROP DATABASE " + other + " WITH (FORCE)");
}

}  // namespace
}  // namespace corvane::cloud
