// Where the store lives, and whose it is when nobody says.
#include <gtest/gtest.h>

#include "cloud/cloud_location.h"
#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;

class LocationTest : public CloudTest {};

TEST_F(LocationTest, CorvaneCloudNamesTheFile) {
    ::setenv("CORVANE_CLOUD", "/some/where/file.sqlite", 1);
    auto location = cloudLocation();
    EXPECT_FALSE(location.serverAddress);
    EXPECT_EQ(location.databaseFile, "/some/where/file.sqlite");
    EXPECT_EQ(location.assetCacheDirectory, folder() / "cache" / "corvane" / "Assets");
}

TEST_F(LocationTest, WithoutItTheDataFolderHoldsTheFile) {
    ::unsetenv("CORVANE_CLOUD");
    EXPECT_EQ(cloudLocation().databaseFile, folder() / "data" / "corvane" / "cloud.sqlite");
    ::setenv("XDG_DATA_HOME", "relative/ignored", 1);
    ::setenv("XDG_CACHE_HOME", "", 1);
    ::setenv("HOME", folder().c_str(), 1);
    auto location = cloudLocation();
    EXPECT_EQ(location.databaseFile, folder() / ".local/share/corvane/cloud.sqlite");
    EXPECT_EQ(location.assetCacheDirectory, folder() / ".cache/corvane/Assets");
}

TEST_F(LocationTest, APostgresAddressNamesATeamStore) {
    ::setenv("CORVANE_CLOUD", "postgresql://corvane@db.example.com/corvane", 1);
    EXPECT_EQ(cloudLocation().serverAddress, "postgresql://corvane@db.example.com/corvane");
    // A server nobody runs: the network's error, not a file named like the address.
    auto nowhere = "postgres:///corvane?host=" + (folder() / "no-server").string();
    ::setenv("CORVANE_CLOUD", nowhere.c_str(), 1);
    try {
        openContainer()->privateCloudDatabase().fetchAllRecordZones();
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kNetworkUnavailable) << error.what();
    }
    EXPECT_FALSE(std::filesystem::exists(nowhere));
}

TEST_F(LocationTest, OpenContainerCreatesTheFileAndItsFolders) {
    ::unsetenv("CORVANE_CLOUD");
    auto container = openContainer();
    container->privateCloudDatabase().saveRecordZone(ZoneId{"z"});
    EXPECT_TRUE(std::filesystem::exists(folder() / "data" / "corvane" / "cloud.sqlite"));
}

TEST_F(LocationTest, TheDefaultAccountComesFromGitsIdentityOnce) {
    testing::writeFile(folder() / "gitconfig",
                       "[user]\n\temail = Ada@Example.com\n\tname = Ada Lovelace\n");
    auto identity = openContainer()->currentUserIdentity();
    EXPECT_EQ(identity.emailAddress, "Ada@Example.com");
    ASSERT_TRUE(identity.nameComponents);
    EXPECT_EQ(identity.nameComponents->givenName, "Ada");
    EXPECT_EQ(identity.nameComponents->familyName, "Lovelace");
    ASSERT_TRUE(identity.userRecordName);
    EXPECT_TRUE(identity.userRecordName->starts_with("_"));
    EXPECT_EQ(identity.userRecordName->size(), 33u);

    // The file keeps its account, whatever git says later.
    testing::writeFile(folder() / "gitconfig", "[user]\n\temail = other@example.com\n");
    EXPECT_EQ(openContainer()->currentUserIdentity().userRecordName, identity.userRecordName);
    // Naming the address opens the same account.
    EXPECT_EQ(openAs("ada@example.com")->currentUserIdentity().userRecordName,
              identity.userRecordName);
}

TEST_F(LocationTest, WithoutGitIdentityTheLoginNameIsUsed) {
    ::setenv("USER", "alice", 1);
    auto identity = openContainer()->currentUserIdentity();
    EXPECT_FALSE(identity.emailAddress);
    ASSERT_TRUE(identity.nameComponents);
    EXPECT_EQ(identity.nameComponents->givenName, "alice");
}

TEST_F(LocationTest, AnAccountInvitedBeforeTheFileWasTheirsBecomesTheDefault) {
    auto invited = openAs("ada@example.com")->currentUserIdentity();
    testing::writeFile(folder() / "gitconfig", "[user]\n\temail = ada@example.com\n");
    EXPECT_EQ(openContainer()->currentUserIdentity().userRecordName, invited.userRecordName);
}

}  // namespace
}  // namespace corvane::cloud
