// The PostgreSQL engine and the team store's set-up: parameters and types on the wire, the codes
// of failed logins and lost connections, the addresses handed to a team's people, and who may
// become a person, with what the server's log learns of their passwords.
#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "cloud/asset_file.h"
#include "cloud/crypto.h"
#include "cloud/field_codec.h"
#include "cloud/schema.h"
#include "cloud/team_operations.h"
#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using namespace testing;

class PostgresTest : public CloudTest {
    void SetUp() override {
        CloudTest::SetUp();
        if (!testing::onPostgres()) GTEST_SKIP() << "needs the PostgreSQL engine";
    }
};

TEST(PostgresParameters, AreNumberedOutsideQuotesOnly) {
    EXPECT_EQ(
        numberedParameters("SELECT '?', ? FROM t WHERE a = ? AND b = 'it''s ?' AND \"?\" = ?"),
        "SELECT '?', $1 FROM t WHERE a = $2 AND b = 'it''s ?' AND \"?\" = $3");
}

TEST(PostgresAddresses, AServerOnAnotherMachineIsReachedOverTlsUnlessTheAddressSaysOtherwise) {
    ::unsetenv("PGSSLMODE");
    ::unsetenv("PGHOST");
    for (const char* remote : {"postgresql://ann@db.example.com/corvane", "host=10.0.0.7 dbname=x",
                               "host=localhost,db.example.com", "hostaddr=192.0.2.1"})
        EXPECT_TRUE(tlsRequired(remote)) << remote;
    for (const char* local :
         {"postgresql://ann@localhost/corvane", "host=/run/postgresql dbname=x", "host=127.0.0.1",
          "host=::1", "dbname=x", "", "postgresql://ann@db.example.com/corvane?sslmode=disable",
          "host=db.example.com sslmode=verify-full"})
        EXPECT_FALSE(tlsRequired(local)) << local;
    ::setenv("PGSSLMODE", "prefer", 1);
    EXPECT_FALSE(tlsRequired("host=db.example.com"));
    ::unsetenv("PGSSLMODE");
    ::setenv("PGHOST", "db.example.com", 1);
    EXPECT_TRUE(tlsRequired("dbname=x"));
    ::unsetenv("PGHOST");
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
            EXPECT_EQ(row.integer(6), 2);
        });
    EXPECT_TRUE(seen);
    EXPECT_EQ(connection->execute("UPDATE settings SET value = value"), 2);
    EXPECT_EQ(codeOf([&] { connection->execute("SELECT CAST(? AS TEXT) + 1", {"x"}); }),
              kInternalError);

    // Lists arrive as arrays, element for element; empty ones too.
    std::vector<std::string> texts{"a", "", "it's \"quoted\" {x,y}", text};
    std::vector<std::int64_t> numbers{0, -1, std::numeric_limits<std::int64_t>::max()};
    Bytes zeros(3000, 0);
    std::vector<ByteView> blobs{ByteView(bytes), ByteView(), ByteView(zeros)};
    std::vector<std::string> none;
    connection->execute(
        "SELECT array_to_json(?::TEXT[])::TEXT, array_to_json(?::BIGINT[])::TEXT, "
        "(SELECT string_agg(encode(sha256(b), 'hex'), ',') FROM unnest(?::BYTEA[]) b), "
        "cardinality(?::TEXT[])",
        {TextList(texts), IntegerList(numbers), BlobList(blobs), TextList(none)},
        [&](const SqlRow& row) {
            EXPECT_EQ(row.text(0), "[\"a\",\"\",\"it's \\\"quoted\\\" {x,y}\",\"" + text + "\"]");
            EXPECT_EQ(row.text(1), "[0,-1,9223372036854775807]");
            std::string hashes;
            for (auto blob : blobs) {
                Sha256 sha;
                sha.update(blob);
                hashes += (hashes.empty() ? "" : ",") + sha.finishHex();
            }
            EXPECT_EQ(row.text(2), hashes);
            EXPECT_EQ(row.integer(3), 0);
        });
}

TEST_F(PostgresTest, LoginsAndLostConnectionsEndInTheirCodes) {
    ContainerOptions options;
    options.assetCacheDirectory = cacheDirectory();
    auto firstUse = [&](const std::string& address) {
        return codeOf([&] {
            Container::connect(address, options)->sharedCloudDatabase().fetchAllRecordZones();
        });
    };
    // A server that is not there, a role it does not know, a database nobody set up, and one
    // whose store is of an earlier layout.
    EXPECT_EQ(firstUse("host=/nonexistent/folder dbname=x"), kNetworkUnavailable);
    EXPECT_EQ(firstUse(roleAddress("t_nobody_known")), kNotAuthenticated);
    EXPECT_EQ(firstUse(server() + " dbname=postgres"), kBadContainer);
    auto ann = openAs("ann@example.com");
    auto setLayout = [&](std::int64_t layout) {
        adminConnection()->execute("UPDATE settings SET value = ? WHERE name = 'layout'",
                                   {std::to_string(layout)});
    };
    setLayout(kTeamLayout - 1);
    EXPECT_EQ(firstUse(roleAddress(roleFor("ann@example.com"))), kBadContainer);
    setLayout(kTeamLayout + 1);
    EXPECT_EQ(firstUse(roleAddress(roleFor("ann@example.com"))), kIncompatibleVersion);
    setLayout(kTeamLayout);

    // A role that is not a person of the store may not even connect; once it is one, the same
    // container signs in, with no restart.
    auto outsider = roleFor("otto@example.com");
    auto admin = storeAdministrator();
    admin->execute("CREATE ROLE " + outsider + " LOGIN PASSWORD '" +
                   admin->passwordVerifier(outsider, "secret") + "'");
    auto outsiders = Container::connect(roleAddress(outsider) + " password=secret", options);
    EXPECT_EQ(codeOf([&] { outsiders->currentUserIdentity(); }), kNotAuthenticated);
    EXPECT_FALSE(addPerson(*admin, NewPerson{outsider, "otto@example.com", "Otto"}, true));
    EXPECT_EQ(outsiders->currentUserIdentity().emailAddress, "otto@example.com");

    auto& database = ann->privateCloudDatabase();
    database.saveRecordZone(ZoneId{"z"});
    // The server ends the session (a restart, a failover): one failure, then a new connection.
    adminConnection()->execute(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = ? AND "
        "datname = current_database()",
        {roleFor("ann@example.com")});
    EXPECT_EQ(codeOf([&] { database.fetchAllRecordZones(); }), kNetworkFailure);
    EXPECT_EQ(database.fetchAllRecordZones().size(), 1u);

    openAs("bea@example.com");
    auto address = admin->memberAddress(server() + " dbname=" + databaseName() + " sslmode=disable",
                                        roleFor("bea@example.com"), "p@ss word");
    EXPECT_TRUE(
        address.starts_with("postgresql://" + roleFor("bea@example.com") + ":p%40ss%20word@%2F"))
        << address;
    EXPECT_NE(address.find("sslmode=disable"), std::string::npos) << address;
    EXPECT_EQ(Container::connect(address, options)->currentUserIdentity().emailAddress,
              "bea@example.com");
    // Without a database in the address, the one the administrator reached is the people's.
    EXPECT_NE(admin->memberAddress("", "r", "p").find("/" + databaseName()), std::string::npos);
    EXPECT_EQ(codeOf([&] { admin->memberAddress("host=x nonsense", "r", "p"); }),
              kInvalidArguments);
}

TEST_F(PostgresTest, OnlyNewRolesOrChosenOnesBecomePeopleAndPasswordsStayOffTheServer) {
    auto admin = storeAdministrator();
    auto dora = roleFor("dora@example.com");
    auto password = addPerson(*admin, NewPerson{dora, "dora@example.com", "Dora Tester"});
    ASSERT_TRUE(password);
    // Again: the same person keeps their password; the name may change.
    EXPECT_FALSE(addPerson(*admin, NewPerson{dora, "dora@example.com", "Dora Maar"}));
    auto account = findAccountByEmail(*adminConnection(), "DORA@example.com");
    ASSERT_TRUE(account);
    EXPECT_EQ(account->name.familyName, "Maar");

    // The password reached the server as a SCRAM verifier only: its log of data definitions
    // never shows it.
    if (const char* log = std::getenv("CORVANE_TEST_POSTGRES_LOG")) {
        auto text = readFile(log);
        EXPECT_NE(text.find("CREATE ROLE " + dora), std::string::npos);
        EXPECT_EQ(text.find(*password), std::string::npos);
    }

    auto existing = roleFor("eve@example.com");
    auto maker = roleFor("mal@example.com"), member = roleFor("mem@example.com");
    admin->execute("CREATE ROLE " + existing + " LOGIN");
    // A role that may create roles could grant itself the administrator's rights; a member of
    // another role has that role's rights.
    admin->execute("CREATE ROLE " + maker + " LOGIN CREATEROLE");
    admin->execute("CREATE ROLE " + member + " LOGIN IN ROLE pg_read_all_data");
    for (const auto& [bad, why] :
         {std::pair{NewPerson{roleFor("x"), "dora@example.com", "Eve"}, "another's address"},
          {NewPerson{"Robert'); DROP TABLE accounts; --", "r@example.com", "R"}, "no role name"},
          {NewPerson{"pg_signal_backend", "p@example.com", "P"}, "the server's own role"},
          {NewPerson{roleFor("y"), "no address", "Eve"}, "no address"},
          {NewPerson{existing, "eve@example.com", "Eve"}, "a role that exists"},
          {NewPerson{"postgres", "root@example.com", "Root"}, "a superuser"},
          {NewPerson{"corvane_admin", "admin@example.com", "Admin"}, "the administrator"},
          {NewPerson{maker, "mal@example.com", "Mal"}, "a maker of roles"},
          {NewPerson{member, "mem@example.com", "Mem"}, "a member of another role"}})
        EXPECT_EQ(codeOf([&] { addPerson(*admin, bad, bad.role != existing); }), kInvalidArguments)
            << why;
    EXPECT_FALSE(addPerson(*admin, NewPerson{existing, "eve@example.com", "Eve"}, true));
    auto members = [&](const std::string& role) {
        return *queryInteger(*admin,
                             "SELECT COUNT(*) FROM pg_auth_members m JOIN pg_roles r ON "
                             "r.oid = m.member WHERE r.rolname = ?",
                             {role});
    };
    EXPECT_EQ(members("postgres"), 0);
    EXPECT_EQ(members(maker), 0);
    EXPECT_EQ(members(existing), 1);

    // Roles belong to the whole server: two stores on it adding the same person at the same
    // moment both succeed, and exactly one of them made the role (and knows its password).
    std::string other = databaseName() + "_race";
    PostgresConnection::open(server())->execute("CREATE DATABASE " + other);
    auto otherAdmin = PostgresConnection::open(server() + " dbname=" + other);
    initTeamStore(*otherAdmin);
    for (int round = 0; round < 8; ++round) {
        std::string role = roleFor("race" + std::to_string(round));
        std::optional<std::string> passwords[2];
        std::string failures[2];
        auto add = [&](int side, PostgresConnection& store) {
            try {
                passwords[side] =
                    addPerson(store, NewPerson{role, role + "@example.com", "R"}, true);
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
    PostgresConnection::open(server())->execute("DROP DATABASE " + other + " WITH (FORCE)");
}

// A store set up by an earlier Corvane (tables in the schema public, contents shared between
// zones) moves to this layout with its data when its administrator runs the set-up again.
TEST_F(PostgresTest, AStoreOfTheEarlierLayoutKeepsItsDataBehindTheNewDoor) {
    std::string old = databaseName() + "_v2";
    PostgresConnection::open(server())->execute("CREATE DATABASE " + old);
    auto admin = PostgresConnection::open(server() + " dbname=" + old);
    prepareSchema(*admin);  // layout 2, as the earlier set-up made it
    auto ann = roleFor("ann@example.com"), bob = roleFor("bob@example.com");
    for (const auto& role : {ann, bob})
        admin->execute("CREATE ROLE " + role + " LOGIN PASSWORD '" +
                       admin->passwordVerifier(role, "pw") + "'");
    auto content = digestAsset(Asset{file("meta", "history")});
    auto fields = encodeFields(Fields{{"meta", Asset{file("meta", "history")}}}, [&](const Asset&) {
        return StoredAsset{content.hash, 7};
    });
    auto shareFields = encodeFields(Fields{}, nullptr);
    admin->execute(
        "INSERT INTO accounts (id, record_name, email, email_key, role_name) VALUES "
        "(1, '_ann', 'ann@example.com', 'ann@example.com', ?), "
        "(2, '_bob', 'bob@example.com', 'bob@example.com', ?)",
        {ann, bob});
    admin->execute(
        "INSERT INTO zones (id, owner_id, name, created) VALUES (1, 1, 'z', 0), "
        "(2, 2, 'y', 0)");
    admin->execute(
        "INSERT INTO records (id, zone_id, name, type, fields, change_tag, created, modified) "
        "VALUES (1, 1, 'REPOSITORY', 'repository', ?, 'a', 0, 0), "
        "(2, 1, 'SHARE', 'cloud.share', ?, 'b', 0, 0), "
        "(3, 2, 'REPOSITORY', 'repository', ?, 'c', 0, 0)",
        {ByteView(fields), ByteView(shareFields), ByteView(fields)});
    admin->execute("INSERT INTO assets (hash, size) VALUES (?, 7)", {content.hash});
    admin->execute("INSERT INTO asset_chunks (hash, seq, data) VALUES (?, 0, 'history')",
                   {content.hash});
    admin->execute("INSERT INTO asset_refs (record_id, hash) VALUES (1, ?), (3, ?)",
                   {content.hash, content.hash});
    admin->execute(
        "INSERT INTO shares (zone_id, record_id, token, url, root_name, title) VALUES "
        "(1, 2, 't0', 'corvane://share/t0#z', 'REPOSITORY', 'z')");
    admin->execute(
        "INSERT INTO participants (zone_id, position, account_id, email, type, status, "
        "permission) VALUES (1, 0, 1, 'ann@example.com', 1, 2, 3), "
        "(1, 1, 2, 'bob@example.com', 3, 2, 3)");

    initTeamStore(*admin);
    EXPECT_FALSE(
        queryInteger(*admin, "SELECT 1 WHERE to_regclass('public.records') IS NOT NULL", {}));
    auto tcp = std::string(std::getenv("CORVANE_TEST_POSTGRES_TCP")) + " dbname=" + old;
    auto open = [&](const std::string& role) {
        return Container::open(
            [=] { return PostgresConnection::open(tcp + " user=" + role + " password=pw"); },
            optionsFor(role));
    };
    auto bobs = open(bob);
    auto shared = bobs->sharedCloudDatabase().fetchAllRecordZones();
    ASSERT_EQ(shared.size(), 1u);
    EXPECT_EQ(shared[0], (ZoneId{"z", "_ann"}));
    auto root = fetchOne(bobs->sharedCloudDatabase(), RecordId{"REPOSITORY", shared[0]});
    ASSERT_TRUE(root.record) << root.error->what();
    EXPECT_EQ(readFile(*root.record->get<Asset>("meta")->fileURL), "history");
    auto share = fetchOne(open(ann)->privateCloudDatabase(), RecordId{"SHARE", ZoneId{"z"}});
    ASSERT_TRUE(share.record);
    EXPECT_EQ(share.record->share->url, "corvane://share/t0#z");
    EXPECT_EQ(share.record->share->participants.size(), 2u);
    // Each zone now keeps its own copy of what they shared, and new ids follow the old ones.
    EXPECT_EQ(bobs->storageUsage().assetCount, 1);
    bobs->privateCloudDatabase().saveRecordZone(ZoneId{"x"});
    EXPECT_EQ(queryInteger(*admin, "SELECT max(id) FROM corvane.zones", {}), 3);
    admin.reset();
    PostgresConnection::open(server())->execute("DROP DATABASE " + old + " WITH (FORCE)");
}

}  // namespace
}  // namespace corvane::cloud
