// Sharing a zone between accounts of one store: invitation by e-mail, opening the URL,
// accepting, working in the shared database, and what everyone else sees.
#include <gtest/gtest.h>

#include "base/bytes.h"
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

const ZoneId kZone{"8e1b4c0d"};
const RecordId kRoot{"REPOSITORY", kZone};
const RecordId kShareId{"SHARE", kZone};

class ShareTest : public CloudTest {
  protected:
    void SetUp() override {
        CloudTest::SetUp();
        owner = openAs("olga@example.com");
        guest = openAs("Gus@Example.com");
        stranger = openAs("sam@example.com");
    }

    // The owner's repository: zone, root record and share, saved together.
    Record createShared() {
        auto& database = owner->privateCloudDatabase();
        database.saveRecordZone(kZone);
        Record root("repository", kRoot);
        root.set("name", "tools");
        root.set("version", 2);
        auto share = makeShare(root, "SHARE");
        share.share->title = "tools";
        share.share->thumbnailImageData = Bytes{1, 2, 3};
        auto saved = saveAll(database, {root, share});
        return saved.at(1);
    }

    // The owner invites the guest by address, as the backend's addContributor does.
    Record invite(const std::string& email, Permission permission = Permission::readWrite) {
        auto& database = owner->privateCloudDatabase();
        auto records = database.fetchRecords(std::vector<RecordId>{kShareId, kRoot});
        auto share = *records[0].record;
        auto participant = owner->fetchShareParticipant(email);
        EXPECT_TRUE(participant);
        participant->permission = permission;
        share.share->addParticipant(*participant);
        return saveAll(database, {share, *records[1].record}).at(0);
    }

    ZoneId sharedZone() const { return ZoneId{kZone.zoneName, ownerName()}; }
    std::string ownerName() const { return *owner->currentUserIdentity().userRecordName; }

    std::unique_ptr<Container> owner;
    std::unique_ptr<Container> guest;
    std::unique_ptr<Container> stranger;
};

TEST_F(ShareTest, ASavedShareHasAURLAndItsOwnerAsFirstParticipant) {
    auto share = createShared();
    ASSERT_TRUE(share.isShare());
    ASSERT_TRUE(share.share->url);
    EXPECT_TRUE(share.share->url->starts_with("corvane://share/"));
    EXPECT_TRUE(share.share->url->ends_with("#tools"));
    ASSERT_EQ(share.share->participants.size(), 1u);
    const auto& first = share.share->participants[0];
    EXPECT_EQ(first.type, ParticipantType::owner);
    EXPECT_EQ(first.acceptanceStatus, AcceptanceStatus::accepted);
    EXPECT_EQ(first.userIdentity.userRecordName, ownerName());

    auto fetched = fetchOne(owner->privateCloudDatabase(), kShareId);
    ASSERT_TRUE(fetched.record);
    ASSERT_TRUE(fetched.record->isShare());
    EXPECT_EQ(fetched.record->recordType, kShareRecordType);
    EXPECT_EQ(fetched.record->share->url, share.share->url);
    EXPECT_EQ(fetched.record->share->title, "tools");
    EXPECT_EQ(fetched.record->share->thumbnailImageData, (Bytes{1, 2, 3}));
    EXPECT_EQ(fetched.record->share->rootRecordName, "REPOSITORY");
    EXPECT_FALSE(fetchOne(owner->privateCloudDatabase(), kRoot).record->isShare());
}

TEST_F(ShareTest, LookingUpAnAddressFindsTheRegisteredUser) {
    auto found = owner->fetchShareParticipant("gus@EXAMPLE.com");
    ASSERT_TRUE(found);
    EXPECT_TRUE(found->userIdentity.hasAccount);
    EXPECT_EQ(found->userIdentity.userRecordName, guest->currentUserIdentity().userRecordName);
    EXPECT_EQ(found->userIdentity.emailAddress, "Gus@Example.com");
    ASSERT_TRUE(found->userIdentity.nameComponents);
    EXPECT_EQ(found->userIdentity.nameComponents->givenName, "Gus");

    auto unknown = owner->fetchShareParticipant("nobody@example.com");
    ASSERT_TRUE(unknown);
    EXPECT_FALSE(unknown->userIdentity.hasAccount);
    EXPECT_FALSE(unknown->userIdentity.userRecordName);
    EXPECT_FALSE(owner->fetchShareParticipant("not an address"));
    EXPECT_FALSE(owner->fetchShareParticipant(""));
}

TEST_F(ShareTest, TheWholeJourneyOfAContributor) {
    auto url = *createShared().share->url;
    const std::vector<std::string> listedNames{"REPOSITORY", "SHARE"};
    auto ownersVersion = [&] {
        return owner->privateCloudDatabase().fetchZoneVersions(listedNames).at(0).version;
    };
    auto created = ownersVersion();
    auto share = invite("gus@example.com");
    auto invited = ownersVersion();
    EXPECT_NE(invited, created);
    ASSERT_EQ(share.share->participants.size(), 2u);
    EXPECT_EQ(share.share->participants[1].acceptanceStatus, AcceptanceStatus::pending);
    EXPECT_EQ(share.share->participants[1].permission, Permission::readWrite);

    // Before accepting, the guest sees nothing of the zone.
    EXPECT_TRUE(guest->sharedCloudDatabase().fetchAllRecordZones().empty());
    EXPECT_EQ(
        fetchOne(guest->sharedCloudDatabase(), RecordId{"REPOSITORY", sharedZone()}).error->code(),
        kUnknownItem);

    auto metadata = guest->fetchShareMetadata(url, true);
    EXPECT_EQ(metadata.participantStatus, AcceptanceStatus::pending);
    EXPECT_EQ(metadata.participantPermission, Permission::readWrite);
    EXPECT_EQ(metadata.participantType, ParticipantType::privateUser);
    EXPECT_EQ(metadata.ownerIdentity.userRecordName, ownerName());
    EXPECT_EQ(metadata.ownerIdentity.emailAddress, "olga@example.com");
    EXPECT_EQ(metadata.rootRecordId, (RecordId{"REPOSITORY", sharedZone()}));
    ASSERT_TRUE(metadata.rootRecord);
    EXPECT_EQ(*metadata.rootRecord->get<std::string>("name"), "tools");
    EXPECT_EQ(metadata.share.share->url, url);

    EXPECT_TRUE(guest->sharedCloudDatabase().fetchZoneVersions(listedNames).empty());
    guest->acceptShare(metadata);
    auto zones = guest->sharedCloudDatabase().fetchAllRecordZones();
    ASSERT_EQ(zones.size(), 1u);
    EXPECT_EQ(zones[0], sharedZone());
    // The answer changes what the owner's list shows, though no record was saved; the guest's
    // list shows the zone under its owner, with the version the owner sees.
    EXPECT_NE(ownersVersion(), invited);
    auto guests = guest->sharedCloudDatabase().fetchZoneVersions(listedNames);
    ASSERT_EQ(guests.size(), 1u);
    EXPECT_EQ(guests[0].zoneId, sharedZone());
    EXPECT_EQ(guests[0].version, ownersVersion());
    EXPECT_TRUE(guest->privateCloudDatabase().fetchAllRecordZones().empty());

    // The guest reads and writes records of the zone through the shared database.
    auto& shared = guest->sharedCloudDatabase();
    auto root = fetchOne(shared, RecordId{"REPOSITORY", sharedZone()});
    ASSERT_TRUE(root.record);
    Record pack("pack", RecordId{"abc", sharedZone()});
    pack.set("objects", std::vector<Asset>{Asset{file("o", "object")}});
    pack.setParent(root.record->recordId);
    saveOne(shared, pack, SavePolicy::allKeys);
    auto updated = *root.record;
    updated.set("version", 3);
    saveOne(shared, updated);

    auto seenByOwner = fetchOne(owner->privateCloudDatabase(), RecordId{"abc", kZone});
    ASSERT_TRUE(seenByOwner.record);
    EXPECT_EQ(
        testing::readFile(*(*seenByOwner.record->get<std::vector<Asset>>("objects"))[0].fileURL),
        "object");
    EXPECT_EQ(*fetchOne(owner->privateCloudDatabase(), kRoot).record->get<std::int64_t>("version"),
              3);

    // The owner sees the guest as accepted.
    auto ownerShare = fetchOne(owner->privateCloudDatabase(), kShareId).record->share;
    EXPECT_EQ(ownerShare->participants[1].acceptanceStatus, AcceptanceStatus::accepted);
    EXPECT_EQ(ownerShare->participants[1].userIdentity.userRecordName,
              guest->currentUserIdentity().userRecordName);

    // A third account sees nothing: not the zones, not the records, not the share.
    EXPECT_TRUE(stranger->sharedCloudDatabase().fetchAllRecordZones().empty());
    EXPECT_TRUE(stranger->privateCloudDatabase().fetchAllRecordZones().empty());
    EXPECT_EQ(
        fetchOne(stranger->sharedCloudDatabase(), RecordId{"abc", sharedZone()}).error->code(),
        kUnknownItem);
    try {
        stranger->fetchShareMetadata(url, true);
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kUnknownItem);
    }
    EXPECT_THROW(stranger->acceptShare(metadata), CloudError);
    Record intruder("pack", RecordId{"abd", sharedZone()});
    try {
        saveOne(stranger->sharedCloudDatabase(), intruder);
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(failure.partialErrors().begin()->second.code(), kUnknownItem);
    }
}

TEST_F(ShareTest, ParticipantsWriteOnlyWhatTheirPermissionAllows) {
    auto url = *createShared().share->url;
    invite("gus@example.com", Permission::readOnly);
    invite("sam@example.com");
    guest->acceptShare(guest->fetchShareMetadata(url, false));
    stranger->acceptShare(stranger->fetchShareMetadata(url, false));
    auto refused = [](Database& database, const Record& record) {
        try {
            saveOne(database, record);
            return 0;
        } catch (const PartialFailure& failure) {
            return failure.partialErrors().begin()->second.code();
        }
    };
    // Read-only: no record at all; read-write: records, but not the share, which is the owner's.
    auto root = fetchOne(guest->sharedCloudDatabase(), RecordId{"REPOSITORY", sharedZone()});
    ASSERT_TRUE(root.record);
    EXPECT_EQ(refused(guest->sharedCloudDatabase(), *root.record), kPermissionFailure);
    auto share = fetchOne(stranger->sharedCloudDatabase(), RecordId{"SHARE", sharedZone()});
    ASSERT_TRUE(share.record);
    share.record->share->addParticipant(*stranger->fetchShareParticipant("gus@example.com"));
    EXPECT_EQ(refused(stranger->sharedCloudDatabase(), *share.record), kPermissionFailure);
}

TEST_F(ShareTest, RemovingAParticipantEndsTheirAccess) {
    auto url = *createShared().share->url;
    auto share = invite("gus@example.com");
    guest->acceptShare(guest->fetchShareMetadata(url, false));

    share = *fetchOne(owner->privateCloudDatabase(), kShareId).record;
    ASSERT_TRUE(share.share->removeParticipant(share.share->participants[1]));
    auto saved = saveOne(owner->privateCloudDatabase(), share);
    EXPECT_EQ(saved.share->participants.size(), 1u);

    EXPECT_TRUE(guest->sharedCloudDatabase().fetchAllRecordZones().empty());
    EXPECT_EQ(
        fetchOne(guest->sharedCloudDatabase(), RecordId{"REPOSITORY", sharedZone()}).error->code(),
        kUnknownItem);
    EXPECT_THROW(guest->fetchShareMetadata(url, false), CloudError);
}

TEST_F(ShareTest, AParticipantLeavesByDeletingTheZoneAndCanBeInvitedAgain) {
    auto url = *createShared().share->url;
    invite("gus@example.com");
    guest->acceptShare(guest->fetchShareMetadata(url, false));
    // An invitation sent again after he accepted (a resend that crossed his answer) keeps him in.
    EXPECT_EQ(invite("gus@example.com").share->participants[1].acceptanceStatus,
              AcceptanceStatus::accepted);
    EXPECT_EQ(guest->sharedCloudDatabase().fetchAllRecordZones().size(), 1u);
    auto stale = *fetchOne(owner->privateCloudDatabase(), kShareId).record;
    guest->sharedCloudDatabase().deleteRecordZone(sharedZone());
    // The owner's copy from before he left, saved over the share, does not bring him back.
    saveOne(owner->privateCloudDatabase(), stale, SavePolicy::allKeys);

    EXPECT_TRUE(guest->sharedCloudDatabase().fetchAllRecordZones().empty());
    EXPECT_TRUE(fetchOne(owner->privateCloudDatabase(), kRoot).record);  // the zone lives on
    auto share = fetchOne(owner->privateCloudDatabase(), kShareId).record->share;
    EXPECT_EQ(share->participants[1].acceptanceStatus, AcceptanceStatus::removed);
    EXPECT_THROW(guest->fetchShareMetadata(url, false), CloudError);

    auto renewed = invite("gus@example.com");
    ASSERT_EQ(renewed.share->participants.size(), 2u);  // the same person, not a second row
    EXPECT_EQ(renewed.share->participants[1].acceptanceStatus, AcceptanceStatus::pending);
    guest->acceptShare(guest->fetchShareMetadata(url, false));
    EXPECT_EQ(guest->sharedCloudDatabase().fetchAllRecordZones().size(), 1u);
}

TEST_F(ShareTest, DeletingTheZoneMakesTheShareUnusable) {
    auto url = *createShared().share->url;
    invite("gus@example.com");
    auto metadata = guest->fetchShareMetadata(url, false);
    owner->privateCloudDatabase().deleteRecordZone(kZone);
    try {
        guest->fetchShareMetadata(url, false);
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kUnknownItem);
    }
    EXPECT_THROW(guest->acceptShare(metadata), CloudError);
    EXPECT_TRUE(guest->sharedCloudDatabase().fetchAllRecordZones().empty());

    // A new zone of the same name with a new share has a new URL.
    auto again = createShared();
    EXPECT_NE(*again.share->url, url);
}

TEST_F(ShareTest, AnInvitationToAnAddressWaitsForItsAccount) {
    auto url = *createShared().share->url;
    auto share = invite("late@example.com");
    ASSERT_EQ(share.share->participants.size(), 2u);
    EXPECT_FALSE(share.share->participants[1].userIdentity.hasAccount);
    EXPECT_EQ(share.share->participants[1].userIdentity.emailAddress, "late@example.com");

    auto late = openAs("LATE@example.com");
    auto metadata = late->fetchShareMetadata(url, true);
    late->acceptShare(metadata);
    EXPECT_EQ(late->sharedCloudDatabase().fetchAllRecordZones().size(), 1u);
    auto stored = fetchOne(owner->privateCloudDatabase(), kShareId).record->share;
    EXPECT_TRUE(stored->participants[1].userIdentity.hasAccount);
    EXPECT_EQ(stored->participants[1].acceptanceStatus, AcceptanceStatus::accepted);
}

TEST_F(ShareTest, ShareURLsAreCheckedAndTheOwnerMayOpenTheirOwn) {
    auto url = *createShared().share->url;
    try {
        guest->fetchShareMetadata("https://example.com/x", false);
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kInvalidArguments);
    }
    try {
        guest->fetchShareMetadata("corvane://share/" + std::string(32, '0') + "#tools", false);
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kUnknownItem);
    }
    auto mine = owner->fetchShareMetadata(url, true);
    EXPECT_EQ(mine.participantType, ParticipantType::owner);
    EXPECT_EQ(mine.rootRecordId, kRoot);
    owner->acceptShare(mine);
    EXPECT_TRUE(owner->sharedCloudDatabase().fetchAllRecordZones().empty());
}

TEST_F(ShareTest, AZoneHasOneShareAndAShareChangesOnlyWithItsTag) {
    auto share = createShared();
    Record second = makeShare(*fetchOne(owner->privateCloudDatabase(), kRoot).record, "SHARE2");
    try {
        saveOne(owner->privateCloudDatabase(), second);
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(failure.partialErrors().begin()->second.code(), kAlreadyShared);
    }
    share.share->title = "renamed";
    auto saved = saveOne(owner->privateCloudDatabase(), share);
    EXPECT_EQ(saved.share->url, share.share->url);  // the link stays valid
    share.share->title = "stale";
    EXPECT_THROW(saveOne(owner->privateCloudDatabase(), share), PartialFailure);
}

}  // namespace
}  // namespace corvane::cloud
