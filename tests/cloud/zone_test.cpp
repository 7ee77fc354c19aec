// Zones of the private database: create, list, delete, and what a missing zone means.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "cloud/partial_failure.h"
#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;
using testing::fetchOne;
using testing::makeRecord;
using testing::saveOne;

class ZoneTest : public CloudTest {};

TEST_F(ZoneTest, SavedZonesAreListedOldestFirstOnce) {
    auto container = openAs("ann@example.com");
    auto& database = container->privateCloudDatabase();
    EXPECT_TRUE(database.fetchAllRecordZones().empty());
    database.saveRecordZone(ZoneId{"b"});
    database.saveRecordZone(ZoneId{"a"});
    database.saveRecordZone(ZoneId{"b"});  // saving again changes nothing
    auto zones = database.fetchAllRecordZones();
    ASSERT_EQ(zones.size(), 2u);
    EXPECT_EQ(zones[0], ZoneId{"b"});
    EXPECT_EQ(zones[1], ZoneId{"a"});
    EXPECT_EQ(zones[0].ownerName, kCurrentUserDefaultName);
}

TEST_F(ZoneTest, ZoneVersionsChangeWithTheNamedRecordsOnly) {
    auto container = openAs("ann@example.com");
    auto& database = container->privateCloudDatabase();
    const std::vector<std::string> names{"REPOSITORY", "SHARE"};
    auto versions = [&] {
        std::map<std::string, std::string> byZone;
        for (const auto& [zone, version] : database.fetchZoneVersions(names))
            byZone[zone.zoneName] = version;
        return byZone;
    };
    database.saveRecordZone(ZoneId{"b"});
    database.saveRecordZone(ZoneId{"a"});
    auto listed = database.fetchZoneVersions(names);
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed[0].zoneId, ZoneId{"b"});  // as fetchAllRecordZones lists them
    EXPECT_EQ(listed[1].zoneId, ZoneId{"a"});

    auto before = versions();
    saveOne(database, makeRecord("repository", "REPOSITORY", ZoneId{"a"}));
    auto saved = versions();
    EXPECT_NE(saved["a"], before["a"]);
    EXPECT_EQ(saved["b"], before["b"]);
    // A record of another name (a pack) is not what the list shows.
    saveOne(database, makeRecord("pack", "abc", ZoneId{"a"}));
    EXPECT_EQ(versions(), saved);
    auto stored = *fetchOne(database, RecordId{"REPOSITORY", ZoneId{"a"}}).record;
    saveOne(database, stored);
    EXPECT_NE(versions()["a"], saved["a"]);

    database.deleteRecordZone(ZoneId{"b"});
    EXPECT_EQ(versions().count("b"), 0u);
    // Another account's zones are not listed, nor are they in the shared database.
    EXPECT_TRUE(openAs("bob@example.com")->privateCloudDatabase().fetchZoneVersions(names).empty());
    EXPECT_TRUE(container->sharedCloudDatabase().fetchZoneVersions(names).empty());
}

TEST_F(ZoneTest, TheOwnRecordNameWorksLikeThePlaceholder) {
    auto container = openAs("ann@example.com");
    auto& database = container->privateCloudDatabase();
    auto me = *container->currentUserIdentity().userRecordName;
    database.saveRecordZone(ZoneId{"z", me});
    saveOne(database, makeRecord("t", "r", ZoneId{"z"}));
    EXPECT_TRUE(fetchOne(database, RecordId{"r", ZoneId{"z", me}}).record);
}

TEST_F(ZoneTest, ZonesCannotBeMadeInTheSharedDatabaseOrForOthers) {
    auto container = openAs("ann@example.com");
    try {
        container->sharedCloudDatabase().saveRecordZone(ZoneId{"z", "_someone"});
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kPermissionFailure);
    }
    EXPECT_THROW(container->privateCloudDatabase().saveRecordZone(ZoneId{"z", "_someone"}),
                 CloudError);
}

TEST_F(ZoneTest, DeletingAZoneRemovesItsRecords) {
    auto container = openAs("ann@example.com");
    auto& database = container->privateCloudDatabase();
    database.saveRecordZone(ZoneId{"z"});
    saveOne(database, makeRecord("t", "r", ZoneId{"z"}));
    database.deleteRecordZone(ZoneId{"z"});
    EXPECT_TRUE(database.fetchAllRecordZones().empty());
    auto result = fetchOne(database, RecordId{"r", ZoneId{"z"}});
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code(), kUnknownItem);

    // A new zone of the same name starts empty.
    database.saveRecordZone(ZoneId{"z"});
    EXPECT_EQ(fetchOne(database, RecordId{"r", ZoneId{"z"}}).error->code(), kUnknownItem);
}

TEST_F(ZoneTest, DeletingAMissingZoneIsZoneNotFound) {
    auto container = openAs("ann@example.com");
    try {
        container->privateCloudDatabase().deleteRecordZone(ZoneId{"nothing"});
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kZoneNotFound);
    }
}

TEST_F(ZoneTest, RecordsOfAMissingZoneAreUnknownItems) {
    auto container = openAs("ann@example.com");
    auto& database = container->privateCloudDatabase();
    auto result = fetchOne(database, RecordId{"REPOSITORY", ZoneId{"nothing"}});
    EXPECT_FALSE(result.record);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code(), kUnknownItem);
    try {
        saveOne(database, makeRecord("t", "r", ZoneId{"nothing"}));
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(failure.code(), kPartialFailure);
        EXPECT_EQ(failure.partialErrors().at(RecordId{"r", ZoneId{"nothing"}}).code(),
                  kUnknownItem);
    }
}

TEST_F(ZoneTest, AccountsSeeOnlyTheirOwnZones) {
    auto ann = openAs("ann@example.com");
    auto bob = openAs("bob@example.com");
    ann->privateCloudDatabase().saveRecordZone(ZoneId{"z"});
    saveOne(ann->privateCloudDatabase(), makeRecord("t", "r", ZoneId{"z"}));
    EXPECT_TRUE(bob->privateCloudDatabase().fetchAllRecordZones().empty());
    EXPECT_EQ(fetchOne(bob->privateCloudDatabase(), RecordId{"r", ZoneId{"z"}}).error->code(),
              kUnknownItem);
    auto annName = *ann->currentUserIdentity().userRecordName;
    EXPECT_EQ(
        fetchOne(bob->sharedCloudDatabase(), RecordId{"r", ZoneId{"z", annName}}).error->code(),
        kUnknownItem);
    // Bob's zone of the same name is his own.
    bob->privateCloudDatabase().saveRecordZone(ZoneId{"z"});
    EXPECT_EQ(fetchOne(bob->privateCloudDatabase(), RecordId{"r", ZoneId{"z"}}).error->code(),
              kUnknownItem);
    EXPECT_THROW(bob->privateCloudDatabase().deleteRecordZone(ZoneId{"z", annName}), CloudError);
    EXPECT_TRUE(fetchOne(ann->privateCloudDatabase(), RecordId{"r", ZoneId{"z"}}).record);
}

}  // namespace
}  // namespace corvane::cloud
