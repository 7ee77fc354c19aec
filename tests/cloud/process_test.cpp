// Several processes on one file: a process killed in the middle of a save, and processes that
// save at the same time.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;
using testing::makeRecord;

const ZoneId kZone{"crash"};

// Runs `body` in a child process; the child exits 0 when it returns, 1 when it throws.
template <typename Body>
pid_t spawn(Body body) {
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    int code = 0;
    try {
        body();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "child failed: %s\n", error.what());
        code = 1;
    }
    ::_exit(code);
}

struct ChildEnd {
    bool killed = false;
    int exitCode = -1;
};

ChildEnd waitFor(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    ChildEnd end;
    end.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (WIFEXITED(status)) end.exitCode = WEXITSTATUS(status);
    return end;
}

class ProcessTest : public CloudTest {
  protected:
    // A large atomic save: many records, each with many small files.
    std::vector<Record> bigSave(const std::string& prefix, int records, int assetsPerRecord) {
        std::vector<Record> save;
        for (int r = 0; r < records; ++r) {
            auto record = makeRecord("pack", prefix + std::to_string(r), kZone);
            std::vector<Asset> objects;
            for (int a = 0; a < assetsPerRecord; ++a) {
                auto name = prefix + std::to_string(r) + "-" + std::to_string(a);
                objects.push_back(Asset{file(name, name + std::string(500 + a, '.'))});
            }
            record.set("objects", objects);
            save.push_back(record);
        }
        return save;
    }

    void prepareFile(const std::filesystem::path& database) {
        auto container = Container::open(database, optionsFor("ann@example.com"));
        container->privateCloudDatabase().saveRecordZone(kZone);
        testing::saveOne(container->privateCloudDatabase(), makeRecord("t", "kept", kZone));
    }

    // How many records of the save are stored; each stored record is checked whole.
    int storedRecords(const std::filesystem::path& database, const std::vector<Record>& save) {
        auto connection = SqliteConnection::open(database);
        EXPECT_EQ(queryText(*connection, "PRAGMA integrity_check", {}), "ok");
        auto container = Container::open(database, optionsFor("ann@example.com"));
        auto& db = container->privateCloudDatabase();
        EXPECT_TRUE(testing::fetchOne(db, RecordId{"kept", kZone}).record);
        std::vector<RecordId> ids;
        for (const auto& record : save)
            ids.push_back(record.recordId);
        int stored = 0;
        auto results = db.fetchRecords(ids);
        for (std::size_t i = 0; i < results.size(); ++i) {
            if (!results[i].record) {
                EXPECT_EQ(results[i].error->code(), kUnknownItem);
                continue;
            }
            ++stored;
            auto objects = *results[i].record->get<std::vector<Asset>>("objects");
            auto expected = *save[i].get<std::vector<Asset>>("objects");
            EXPECT_EQ(objects.size(), expected.size());
            for (std::size_t a = 0; a < std::min(objects.size(), expected.size()); ++a)
                EXPECT_EQ(testing::readFile(*objects[a].fileURL),
                          testing::readFile(*expected[a].fileURL));
        }
        return stored;
    }

    static std::int64_t assetsOf(const std::vector<Record>& save) {
        std::int64_t total = 0;
        for (const auto& record : save)
            total += static_cast<std::int64_t>(record.get<std::vector<Asset>>("objects")->size());
        return total;
    }

    std::int64_t storedAssets(const std::filesystem::path& database) {
        return Container::open(database, optionsFor("ann@example.com"))->storageUsage().assetCount;
    }
};

TEST_F(ProcessTest, AProcessKilledInsideAnAtomicSaveLeavesItWholeOrAbsent) {
    auto save = bigSave("p", 40, 50);

    // Count the steps of the whole save once, to kill at chosen points of it.
    auto measured = folder() / "measure.sqlite";
    prepareFile(measured);
    int countdown = 1 << 30;
    {
        auto container = Container::open(testing::faultyFactory(measured, countdown, [] {}),
                                         optionsFor("ann@example.com"));
        countdown = 1 << 30;
        testing::saveAll(container->privateCloudDatabase(), save);
    }
    int steps = (1 << 30) - countdown;
    ASSERT_GT(steps, 2000);

    // Up to `steps` the kill comes before the commit; at steps + 1 it comes in the next operation.
    for (int killAt : {1, 2, 3, steps / 10, steps / 2, steps - 1, steps, steps + 1}) {
        auto database = folder() / ("killed-" + std::to_string(killAt) + ".sqlite");
        prepareFile(database);
        auto pid = spawn([&] {
            int childCountdown = 1 << 30;
            auto container = Container::open(
                testing::faultyFactory(database, childCountdown, testing::killProcess),
                optionsFor("ann@example.com"));
            childCountdown = killAt;
            testing::saveAll(container->privateCloudDatabase(), save);
            container->privateCloudDatabase().fetchAllRecordZones();
        });
        auto end = waitFor(pid);
        EXPECT_TRUE(end.killed) << "kill at " << killAt;
        int expected = killAt > steps ? static_cast<int>(save.size()) : 0;
        EXPECT_EQ(storedRecords(database, save), expected) << "kill at " << killAt;
        EXPECT_EQ(storedAssets(database), expected ? assetsOf(save) : 0);
    }
}

// Not a test of its own: the other process of the next test, started afresh (a forked child
// would share this process's view of the file's locks).
TEST_F(ProcessTest, SavesTheZoneNamedByTheEnvironment) {
    const char* name = std::getenv("CORVANE_TEST_ZONE");
    if (!name) GTEST_SKIP() << "run by ConnectionsOpenedLaterKeepSeeingWhatOtherProcessesSave";
    ::setenv("CORVANE_CLOUD", std::getenv("CORVANE_TEST_FILE"), 1);
    Container::open(std::getenv("CORVANE_TEST_FILE"), optionsFor("ann@example.com"))
        ->privateCloudDatabase()
        .saveRecordZone(ZoneId{name});
}

TEST_F(ProcessTest, ConnectionsOpenedLaterKeepSeeingWhatOtherProcessesSave) {
    auto container = openAs("ann@example.com");
    auto& database = container->privateCloudDatabase();
    database.saveRecordZone(ZoneId{"first"});
    // One more connection to the file in this process, as the pool opens under load.
    auto second = SqliteConnection::open(databaseFile());
    for (const auto* name : {"second", "third"}) {
        // Each other process is the file's only other user and checkpoints as it closes.
        auto child = corvane::testing::runCommand(
            {"/proc/self/exe", "--gtest_filter=ProcessTest.SavesTheZoneNamedByTheEnvironment"},
            {{"CORVANE_TEST_ZONE", name}, {"CORVANE_TEST_FILE", databaseFile().string()}});
        ASSERT_EQ(child.status, 0) << child.out;
        auto zones = database.fetchAllRecordZones();
        EXPECT_TRUE(std::any_of(zones.begin(), zones.end(), [&](const ZoneId& zone) {
            return zone.zoneName == name;
        })) << name;
    }
}

TEST_F(ProcessTest, TwoProcessesSavingToOneFileBothSucceed) {
    // Both start on a file that does not exist yet, so they also race to create the tables and
    // the account, and both store one common content, so they race to store it too.
    auto common = file("common", "bytes both processes store");
    std::vector<std::vector<Record>> work;
    for (int p = 0; p < 2; ++p) {
        auto records = bigSave("w" + std::to_string(p) + "-", 30, 5);
        for (auto& record : records)
            record.set("common", Asset{common});
        work.push_back(std::move(records));
    }
    int gate[2];
    ASSERT_EQ(::pipe(gate), 0);
    std::vector<pid_t> children;
    for (const auto& records : work) {
        children.push_back(spawn([&] {
            ::close(gate[1]);
            char byte;
            if (::read(gate[0], &byte, 1) != 0) throw Error("gate");  // opens when closed
            auto container = Container::open(databaseFile(), optionsFor("ann@example.com"));
            auto& database = container->privateCloudDatabase();
            database.saveRecordZone(kZone);
            for (std::size_t i = 0; i < records.size(); i += 3) {
                auto first = records.begin() + static_cast<std::ptrdiff_t>(i);
                testing::saveAll(database, std::vector<Record>(first, first + 3));
            }
        }));
    }
    ::close(gate[0]);
    ::close(gate[1]);
    for (auto pid : children) {
        auto end = waitFor(pid);
        EXPECT_FALSE(end.killed);
        EXPECT_EQ(end.exitCode, 0);
    }

    auto container = openAs("ann@example.com");
    std::vector<RecordId> ids;
    for (const auto& records : work) {
        for (const auto& record : records)
            ids.push_back(record.recordId);
    }
    for (const auto& result : container->privateCloudDatabase().fetchRecords(ids))
        EXPECT_TRUE(result.record) << result.recordId.recordName;
    EXPECT_EQ(container->storageUsage().assetCount, 2 * 30 * 5 + 1);
    auto connection = SqliteConnection::open(databaseFile());
    EXPECT_EQ(queryInteger(*connection, "SELECT COUNT(*) FROM accounts", {}), 1);
}

}  // namespace
}  // namespace corvane::cloud
