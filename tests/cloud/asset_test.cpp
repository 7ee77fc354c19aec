// Contents stored once, freed when unused, and written out as readable files on fetch.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "cloud/asset_cache.h"
#include "cloud/asset_file.h"
#include "cloud/partial_failure.h"
#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;
using testing::fetchOne;
using testing::makeRecord;
using testing::saveAll;
using testing::saveOne;

const ZoneId kZone{"repo"};

class AssetTest : public CloudTest {
  protected:
    void SetUp() override {
        CloudTest::SetUp();
        container = openAs("ann@example.com");
        database().saveRecordZone(kZone);
    }
    Database& database() { return container->privateCloudDatabase(); }

    // A pack record listing one file per object, with the object's content.
    Record pack(const std::string& name, int first, int count) {
        auto record = makeRecord("pack", name, kZone);
        std::vector<Asset> objects;
        for (int i = first; i < first + count; ++i)
            objects.push_back(
                Asset{file("obj" + std::to_string(i), "object " + std::to_string(i))});
        record.set("objects", objects);
        return record;
    }

    std::unique_ptr<Container> container;
};

TEST_F(AssetTest, RewritingAPackStoresOnlyTheNewContents) {
    auto first = saveOne(database(), pack("abc", 0, 490));
    EXPECT_EQ(container->storageUsage().assetCount, 490);
    auto rewritten = pack("abc", 0, 500);
    rewritten.recordChangeTag = first.recordChangeTag;
    saveOne(database(), rewritten);
    EXPECT_EQ(container->storageUsage().assetCount, 500);

    auto fetched = fetchOne(database(), rewritten.recordId);
    auto objects = *fetched.record->get<std::vector<Asset>>("objects");
    ASSERT_EQ(objects.size(), 500u);
    for (int i : {0, 489, 490, 499})
        EXPECT_EQ(testing::readFile(*objects[i].fileURL), "object " + std::to_string(i));
}

TEST_F(AssetTest, EqualContentsAreStoredOnceAcrossRecordsAndZones) {
    auto a = makeRecord("t", "a", kZone);
    a.set("x", Asset{file("one", "same bytes")});
    auto b = makeRecord("t", "b", kZone);
    b.set("x",
          std::vector<Asset>{Asset{file("two", "same bytes")}, Asset{file("three", "same bytes")}});
    // Ranges of one file are contents of their own, the same as whole files with their bytes.
    auto c = makeRecord("t", "c", kZone);
    auto both = file("both", "<same bytes|other>");
    c.set("x", std::vector<Asset>{Asset{both, ByteRange{1, 10}}, Asset{both, ByteRange{12, 5}}});
    saveAll(database(), {a, b, c});
    EXPECT_EQ(container->storageUsage().assetCount, 2);
    EXPECT_EQ(container->storageUsage().assetBytes, 15);

    auto fetched =
        database().fetchRecords(std::vector<RecordId>{a.recordId, b.recordId, c.recordId});
    auto first = *fetched[0].record->get<Asset>("x")->fileURL;
    auto second = (*fetched[1].record->get<std::vector<Asset>>("x"))[0].fileURL;
    auto ranges = *fetched[2].record->get<std::vector<Asset>>("x");
    EXPECT_EQ(first, second);  // one file for one content
    EXPECT_EQ(ranges[0].fileURL, first);
    EXPECT_FALSE(ranges[0].range);  // fetched contents are whole files
    EXPECT_EQ(testing::readFile(*ranges[1].fileURL), "other");
    EXPECT_EQ(first.filename(), digestAsset(Asset{file("one", "same bytes")}).hash);

    // A range the file does not hold is refused like a missing file.
    auto d = makeRecord("t", "d", kZone);
    d.set("x", Asset{both, ByteRange{12, 7}});
    try {
        saveOne(database(), d);
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(failure.partialErrors().at(d.recordId).code(), kAssetFileNotFound);
    }
}

TEST_F(AssetTest, ContentsNoRecordUsesAreCollected) {
    auto record = makeRecord("t", "r", kZone);
    record.set("x", Asset{file("v1", "version one")});
    record.set("y", Asset{file("keep", "kept bytes")});
    auto saved = saveOne(database(), record);
    EXPECT_EQ(container->storageUsage().assetCount, 2);

    saved.set("x", Asset{file("v2", "version two")});
    saved = saveOne(database(), saved);
    auto usage = container->storageUsage();
    EXPECT_EQ(usage.assetCount, 2);
    EXPECT_EQ(usage.assetBytes, 11 + 10);

    saved.remove("x");
    saved.remove("y");
    saveOne(database(), saved);
    EXPECT_EQ(container->storageUsage().assetCount, 0);
}

TEST_F(AssetTest, DeletingAZoneFreesItsContentsButNotSharedOnes) {
    database().saveRecordZone(ZoneId{"other"});
    auto shared = makeRecord("t", "s", ZoneId{"other"});
    shared.set("x", Asset{file("obj3", "object 3")});
    saveOne(database(), shared);
    saveOne(database(), pack("abc", 0, 10));
    // A team store keeps each zone's contents apart, so that what one zone holds tells nothing
    // of another; the embedded file stores equal bytes once.
    EXPECT_EQ(container->storageUsage().assetCount, testing::onPostgres() ? 11 : 10);

    database().deleteRecordZone(kZone);
    EXPECT_EQ(container->storageUsage().assetCount, 1);
    auto fetched = fetchOne(database(), shared.recordId);
    EXPECT_EQ(testing::readFile(*fetched.record->get<Asset>("x")->fileURL), "object 3");

    auto connection = adminConnection();
    EXPECT_EQ(queryInteger(*connection, "SELECT COUNT(*) FROM asset_chunks", {}), 1);
}

TEST_F(AssetTest, LargeContentsTravelInPiecesAndComeBackWhole) {
    std::string big;
    for (int i = 0; big.size() < 3 * (1u << 20) + 123; ++i)
        big += std::to_string(i) + ",";
    auto record = makeRecord("t", "big", kZone);
    record.set("x", Asset{file("big", big)});
    record.set("empty", Asset{file("empty", "")});
    // Too large to stay in memory between hashing and storing: read from its range twice.
    record.set("framed", Asset{file("framed", "<" + big + "!>"), ByteRange{1, big.size() + 1}});
    saveOne(database(), record);
    auto connection = adminConnection();
    // An empty content is one empty piece on a team store, none in the embedded file.
    EXPECT_EQ(queryInteger(*connection, "SELECT COUNT(*) FROM asset_chunks", {}),
              testing::onPostgres() ? 9 : 8);

    auto fetched = fetchOne(database(), record.recordId);
    EXPECT_EQ(testing::readFile(*fetched.record->get<Asset>("x")->fileURL), big);
    EXPECT_EQ(testing::readFile(*fetched.record->get<Asset>("framed")->fileURL), big + "!");
    auto empty = *fetched.record->get<Asset>("empty")->fileURL;
    EXPECT_TRUE(std::filesystem::exists(empty));
    EXPECT_EQ(std::filesystem::file_size(empty), 0u);
}

TEST_F(AssetTest, FetchedFilesArePrivateAndReusedAndRepairedWhenShort) {
    auto record = makeRecord("t", "r", kZone);
    record.set("x", Asset{file("f", "cached content")});
    saveOne(database(), record);
    auto path = *fetchOne(database(), record.recordId).record->get<Asset>("x")->fileURL;
    EXPECT_EQ(path.parent_path(), cacheDirectory());
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    auto inode = status.st_ino;

    fetchOne(database(), record.recordId);
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_ino, inode);  // not written again

    testing::writeFile(path, "cut");  // as a power cut could leave it
    fetchOne(database(), record.recordId);
    EXPECT_EQ(testing::readFile(path), "cached content");
}

TEST_F(AssetTest, DamagedStoredBytesAreAnErrorNotAWrongFile) {
    auto record = makeRecord("t", "r", kZone);
    record.set("x", Asset{file("f", "precious")});
    saveOne(database(), record);
    {
        auto connection = adminConnection();
        connection->execute("UPDATE asset_chunks SET data = ?", {ByteView(toBytes("precioux"))});
    }
    auto result = fetchOne(database(), record.recordId);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code(), kInternalError);
    auto hash = digestAsset(Asset{file("f", "precious")}).hash;
    EXPECT_FALSE(std::filesystem::exists(cacheDirectory() / hash));
    for (const auto& entry : std::filesystem::directory_iterator(cacheDirectory()))
        ADD_FAILURE() << "left behind: " << entry.path();
}

TEST_F(AssetTest, TheSweepRemovesOnlyOldFilesOfItsOwn) {
    AssetCache cache(cacheDirectory());
    std::filesystem::create_directories(cacheDirectory());
    auto old = cacheDirectory() / std::string(64, 'a');
    auto fresh = cacheDirectory() / std::string(64, 'b');
    auto abandoned = cacheDirectory() / "tmp-abc123";
    auto foreign = cacheDirectory() / "notes.txt";
    for (const auto& path : {old, fresh, abandoned, foreign})
        testing::writeFile(path, "x");
    auto longAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(48);
    std::filesystem::last_write_time(old, longAgo);
    std::filesystem::last_write_time(abandoned, longAgo);
    std::filesystem::last_write_time(foreign, longAgo);
    cache.sweep();
    EXPECT_FALSE(std::filesystem::exists(old));
    EXPECT_FALSE(std::filesystem::exists(abandoned));
    EXPECT_TRUE(std::filesystem::exists(fresh));
    EXPECT_TRUE(std::filesystem::exists(foreign));
}

TEST_F(AssetTest, AFileThatChangesWhileSavedIsRefused) {
    // Files are hashed before the transaction begins; one too large to be kept in memory
    // meanwhile that differs by the time its bytes are stored must not be stored under the old
    // hash. Small files are stored as they were hashed.
    auto path = file("moving", std::string(300 << 10, 'b'));
    int countdown = 1000000;
    auto faulty = Container::open(
        testing::faultyFactory(factoryFor("ann@example.com"), countdown,
                               [&] { testing::writeFile(path, "after, and longer"); }),
        optionsFor("ann@example.com"));
    countdown = 1;  // the save's first step is the start of its transaction
    auto record = makeRecord("t", "r", kZone);
    record.set("x", Asset{path});
    auto other = makeRecord("t", "other", kZone);
    other.set("x", Asset{file("steady", "steady bytes")});
    try {
        // Not atomic: the refused record must leave no piece behind while the other is stored.
        saveAll(faulty->privateCloudDatabase(), {record, other}, SavePolicy::allKeys, false);
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(failure.partialErrors().size(), 1u);
        EXPECT_EQ(failure.partialErrors().at(record.recordId).code(), kAssetFileModified);
    }
    EXPECT_EQ(container->storageUsage().assetCount, 1);
    auto steady = fetchOne(database(), other.recordId);
    EXPECT_EQ(testing::readFile(*steady.record->get<Asset>("x")->fileURL), "steady bytes");
    auto connection = adminConnection();
    EXPECT_EQ(queryInteger(*connection, "SELECT COUNT(*) FROM asset_chunks", {}), 1);

    // Saved again, the file is taken as it is now.
    saveOne(database(), record);
    auto fetched = fetchOne(database(), record.recordId);
    EXPECT_EQ(testing::readFile(*fetched.record->get<Asset>("x")->fileURL), "after, and longer");
}

}  // namespace
}  // namespace corvane::cloud
