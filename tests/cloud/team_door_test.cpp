// Attacks on a team store by its own people, with plain SQL on their own logins: the store's
// functions are their only door, and through it each reaches only what was shared with them.
// Each attack is judged by what it changed or revealed, seen through the store's own API.
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "cloud/asset_file.h"
#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;
using testing::codeOf;
using testing::fetchOne;
using testing::saveAll;
using testing::saveOne;

const ZoneId kZone{"8e1b4c0d"};

class TeamDoorTest : public CloudTest {
  protected:
    void SetUp() override {
        CloudTest::SetUp();
        if (!testing::onPostgres()) GTEST_SKIP() << "a team store is PostgreSQL";
        owner = openAs("olga@example.com");
        guest = openAs("gus@example.com");
        stranger = openAs("sam@example.com");
        auto& database = owner->privateCloudDatabase();
        database.saveRecordZone(kZone);
        Record root("repository", RecordId{"REPOSITORY", kZone});
        root.set("meta", Asset{file("meta", "the owner's secret")});
        auto share = makeShare(root, "SHARE");
        share.share->title = "tools";
        auto saved = saveAll(database, {root, share});
        url = *saved.at(1).share->url;
        token = url.substr(url.find("share/") + 6, 32);
        secretHash = digestAsset(Asset{file("meta", "the owner's secret")}).hash;
        ownerName = *owner->currentUserIdentity().userRecordName;
    }

    std::unique_ptr<PostgresConnection> sqlAs(const std::string& email) {
        return PostgresConnection::open(roleAddress(roleFor(email)));
    }

    void invite(const std::string& email) {
        auto& database = owner->privateCloudDatabase();
        auto share = *fetchOne(database, RecordId{"SHARE", kZone}).record;
        share.share->addParticipant(*owner->fetchShareParticipant(email));
        saveOne(database, share);
    }

    std::int64_t count(const std::string& table) {
        return *queryInteger(*adminConnection(), "SELECT COUNT(*) FROM " + table, {});
    }

    std::unique_ptr<Container> owner, guest, stranger;
    std::string url, token, secretHash, ownerName;
};

TEST_F(TeamDoorTest, PeopleTouchNoTableAndReachNoZoneOfAnother) {
    auto sam = sqlAs("sam@example.com");
    auto refused = [&](const std::string& sql, std::initializer_list<SqlParam> params = {}) {
        return codeOf([&] { sam->execute(sql, params); });
    };
    // No table, sequence or helper, and nothing of their own to make: no temporary table to
    // stand in for one of the store's, no table or schema anywhere.
    for (std::string table : {"settings", "accounts", "zones", "records", "assets", "asset_chunks",
                              "asset_refs", "shares", "participants"}) {
        EXPECT_EQ(refused("SELECT COUNT(*) FROM corvane." + table), kPermissionFailure) << table;
        EXPECT_EQ(refused("DELETE FROM corvane." + table), kPermissionFailure) << table;
    }
    EXPECT_EQ(refused("UPDATE corvane.participants SET status = 2"), kPermissionFailure);
    EXPECT_EQ(refused("INSERT INTO corvane.zones (owner_id, name, created) VALUES (1, 'x', 0)"),
              kPermissionFailure);
    EXPECT_EQ(refused("SELECT nextval(pg_get_serial_sequence('corvane.zones', 'id'))"),
              kPermissionFailure);
    EXPECT_EQ(refused("CREATE TEMP TABLE accounts (id BIGINT, role_name TEXT)"),
              kPermissionFailure);
    EXPECT_EQ(refused("CREATE TABLE public.accounts (id BIGINT)"), kPermissionFailure);
    EXPECT_EQ(refused("CREATE SCHEMA mine"), kPermissionFailure);
    EXPECT_EQ(refused("SELECT corvane.person()"), kPermissionFailure);
    EXPECT_EQ(refused("SELECT * FROM corvane.reach(NULL, 2, '', '', NULL, false)"),
              kPermissionFailure);

    // Through the door, the owner's zone does not exist for someone it was not shared with:
    // not by its owner's name, not as one's own, not by a share they are not in.
    for (std::int64_t scope : {2, 3}) {
        bool zoneRow = false;
        sam->execute(
            "SELECT name FROM corvane.fetch_records(?, ?, ?, NULL, ?)",
            {scope, ownerName, kZone.zoneName, TextList(std::vector<std::string>{"REPOSITORY"})},
            [&](const SqlRow& row) { zoneRow = row.isNull(0); });
        EXPECT_TRUE(zoneRow) << scope;
        std::vector<std::string> hashes{secretHash};
        EXPECT_EQ(refused("SELECT * FROM corvane.read_contents(?, ?, ?, NULL, ?)",
                          {scope, ownerName, kZone.zoneName, TextList(hashes)}),
                  kUnknownItem);
        EXPECT_EQ(
            refused("SELECT corvane.delete_zone(?, ?, ?)", {scope, ownerName, kZone.zoneName}),
            kZoneNotFound);
    }
    // Nor in anyone's list of zones, whatever scope is asked for.
    for (std::int64_t scope : {1, 2, 3, 4}) {
        int listed = 0;
        sam->execute("SELECT zone FROM corvane.zone_versions(?, ?)",
                     {scope, TextList(std::vector<std::string>{"REPOSITORY", "SHARE"})},
                     [&](const SqlRow&) { ++listed; });
        EXPECT_EQ(listed, 0) << scope;
    }
    std::vector<std::string> secret{secretHash};
    EXPECT_EQ(refused("SELECT * FROM corvane.read_contents(3, '', '', ?, ?)",
                      {std::string_view(token), TextList(secret)}),
              kUnknownItem);
    EXPECT_EQ(refused("SELECT * FROM corvane.open_share(?)", {std::string_view(token)}),
              kUnknownItem);
    EXPECT_EQ(refused("SELECT corvane.accept_share(?)", {std::string_view(token)}), kUnknownItem);
    std::vector<std::string> names{"REPOSITORY"}, types{"repository"}, empty{""};
    Bytes fields{0};
    std::vector<ByteView> fieldList{ByteView(fields)};
    std::vector<std::int64_t> none;
    std::vector<std::string> noHashes;
    std::int64_t code = 0;
    sam->execute(
        "SELECT code FROM corvane.save_records(3, ?, ?, 2, true, ?, ?, ?, ?, ?, ?, ?, NULL)",
        {ownerName, kZone.zoneName, TextList(names), TextList(types), TextList(empty),
         BlobList(fieldList), TextList(empty), IntegerList(none), TextList(noHashes)},
        [&](const SqlRow& row) { code = row.integer(0); });
    EXPECT_EQ(code, kUnknownItem);

    // Contents belong to their zone: asking in one's own zone whether the owner's secret is
    // stored says only that this zone lacks it.
    stranger->privateCloudDatabase().saveRecordZone(ZoneId{"mine"});
    std::vector<std::string> missing;
    sam->execute("SELECT * FROM corvane.missing_contents(2, '__defaultOwner__', 'mine', ?)",
                 {TextList(secret)}, [&](const SqlRow& row) { missing.emplace_back(row.text(0)); });
    EXPECT_EQ(missing, secret);

    // Nothing of the owner's changed, and the stranger has nothing shared with them.
    auto root = fetchOne(owner->privateCloudDatabase(), RecordId{"REPOSITORY", kZone});
    ASSERT_TRUE(root.record);
    EXPECT_EQ(testing::readFile(*root.record->get<Asset>("meta")->fileURL), "the owner's secret");
    EXPECT_TRUE(stranger->sharedCloudDatabase().fetchAllRecordZones().empty());

    // Large objects live outside any table, and only a superuser can take them away: the set-up
    // says so until one has.
    EXPECT_EQ(refused("SELECT lo_from_bytea(0, 'filler')"), 0);
    EXPECT_TRUE(largeObjectsOpen(*storeAdministrator()));
    PostgresConnection::open(server() + " dbname=" + databaseName() + " user=postgres")
        ->execute(kCloseLargeObjects);
    EXPECT_EQ(refused("SELECT lo_from_bytea(0, 'filler')"), kPermissionFailure);
    EXPECT_FALSE(largeObjectsOpen(*storeAdministrator()));

    // A person of this store is nobody on another store of the same server.
    std::string other = databaseName() + "_other";
    PostgresConnection::open(server())->execute("CREATE DATABASE " + other);
    initTeamStore(*PostgresConnection::open(server() + " dbname=" + other));
    auto elsewhere = roleAddress(roleFor("sam@example.com"));
    elsewhere.replace(elsewhere.find(databaseName()), databaseName().size(), other);
    EXPECT_EQ(codeOf([&] { PostgresConnection::open(elsewhere); }), kNotAuthenticated);
    PostgresConnection::open(server())->execute("DROP DATABASE " + other + " WITH (FORCE)");
}

TEST_F(TeamDoorTest, ARemovedGuestStaysOutAndContentsComeWholeAndUsedOrNotAtAll) {
    invite("gus@example.com");
    guest->acceptShare(guest->fetchShareMetadata(url, false));
    ZoneId shared{kZone.zoneName, ownerName};
    auto gus = sqlAs("gus@example.com");
    EXPECT_TRUE(fetchOne(guest->sharedCloudDatabase(), RecordId{"REPOSITORY", shared}).record);

    // The owner removes the guest: no answer to the link, no way back in.
    auto& database = owner->privateCloudDatabase();
    auto share = *fetchOne(database, RecordId{"SHARE", kZone}).record;
    ASSERT_TRUE(share.share->removeParticipant(share.share->participants.at(1)));
    saveOne(database, share);
    EXPECT_EQ(codeOf([&] { gus->execute("SELECT corvane.accept_share(?)", {token}); }),
              kUnknownItem);
    EXPECT_EQ(codeOf([&] { guest->fetchShareMetadata(url, false); }), kUnknownItem);
    EXPECT_TRUE(guest->sharedCloudDatabase().fetchAllRecordZones().empty());
    EXPECT_EQ(fetchOne(guest->sharedCloudDatabase(), RecordId{"REPOSITORY", shared}).error->code(),
              kUnknownItem);

    // In their own zone: bytes that are not their name's, pieces left without their content,
    // or a content no record uses, never stay.
    guest->privateCloudDatabase().saveRecordZone(ZoneId{"mine"});
    auto chunks = count("asset_chunks");
    auto store = [&](const std::string& hash, std::string_view bytes, std::int64_t size) {
        Transaction transaction(*gus, TransactionMode::write);
        std::vector<std::string> hashes{hash};
        std::vector<std::int64_t> sizes{size}, seqs{0};
        Bytes piece = toBytes(bytes);
        std::vector<ByteView> pieces{ByteView(piece)};
        gus->execute("SELECT corvane.store_contents(2, '__defaultOwner__', 'mine', ?, ?, ?, ?)",
                     {TextList(hashes), IntegerList(sizes), IntegerList(seqs), BlobList(pieces)});
        transaction.commit();
    };
    auto precious = digestAsset(Asset{file("p", "precious")}).hash;
    EXPECT_EQ(codeOf([&] { store(precious, "precioux", 8); }), kAssetFileModified);
    EXPECT_NE(codeOf([&] { store(precious, "prec", 8); }), 0);  // half a content
    EXPECT_EQ(codeOf([&] { store(precious, "precious", 8); }), kInvalidArguments);  // unused
    EXPECT_EQ(count("asset_chunks"), chunks);
    EXPECT_EQ(count("assets"), 1);
}

}  // namespace
}  // namespace corvane::cloud
