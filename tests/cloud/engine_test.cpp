// The SQLite engine, the pool and the schema, below the record store's own operations.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <future>
#include <thread>

#include "base/trace.h"
#include "cloud/connection_pool.h"
#include "cloud/schema.h"
#include "cloud/sqlite_checkpointer.h"
#include "cloud_test_support.h"
#include "support/error_message.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;

class EngineTest : public CloudTest {};

TEST_F(EngineTest, CreatesAPrivateFileInPrivateFoldersAndRefusesOneOthersControl) {
    auto file = folder() / "a" / "b" / "cloud.sqlite";
    auto connection = SqliteConnection::open(file);
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat((folder() / "a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700u);
    EXPECT_EQ(queryText(*connection, "PRAGMA journal_mode", {}), "wal");
    connection.reset();

    // Whoever can write the file can rewrite every repository in it.
    auto opening = [&] { SqliteConnection::open(file); };
    ASSERT_EQ(::chmod(file.c_str(), 0620), 0);
    EXPECT_EQ(corvane::testing::errorMessage(opening),
              "The cloud database " + file.string() +
                  " can be changed by other users; make it private with chmod 600 " +
                  file.string());
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
    EXPECT_EQ(corvane::testing::errorMessage(opening), "no error");
    if (::geteuid() != 0) return;  // only root can give the file to another user
    ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0);
    EXPECT_EQ(corvane::testing::errorMessage(opening),
              "The cloud database " + file.string() +
                  " belongs to another user (uid 65534); Corvane uses only a file of its own");
}

TEST_F(EngineTest, TheCheckpointThreadCopiesALargeCommitBackIntoTheFile) {
    auto checkpointer = std::make_shared<SqliteCheckpointer>(databaseFile());
    auto connection = SqliteConnection::open(databaseFile(), checkpointer);
    connection->execute("CREATE TABLE t (b BLOB)");
    Bytes piece(1 << 20, 7);
    connection->begin(TransactionMode::write);
    for (int i = 0; i < 8; ++i)
        connection->execute("INSERT INTO t VALUES (?)", {ByteView(piece)});
    connection->commit();
    // The commit itself leaves its pages in the log; the file grows once they are copied.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::filesystem::file_size(databaseFile()) < 8 * piece.size() &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(std::filesystem::file_size(databaseFile()), 8 * piece.size());
}

TEST_F(EngineTest, BindsAndReadsEveryType) {
    auto connection = SqliteConnection::open(databaseFile());
    connection->execute("CREATE TABLE t (i BIGINT, s TEXT, b BLOB, n TEXT)");
    Bytes blob{0, 1, 2, 255};
    connection->execute("INSERT INTO t VALUES (?, ?, ?, ?)",
                        {std::int64_t{-5}, "text", ByteView(blob), std::monostate{}});
    connection->execute("INSERT INTO t VALUES (?, ?, ?, ?)",
                        {std::int64_t{0}, "", ByteView(), "x"});
    std::vector<std::string> seen;
    connection->execute("SELECT i, s, b, n FROM t ORDER BY i", {}, [&](const SqlRow& row) {
        auto bytes = row.blob(2);
        seen.push_back(std::to_string(row.integer(0)) + "|" + std::string(row.text(1)) + "|" +
                       std::to_string(bytes.size()) + "|" + (row.isNull(3) ? "null" : "set"));
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"-5|text|4|null", "0||0|set"}));
    // An empty blob is stored as an empty blob, not as NULL.
    EXPECT_EQ(queryInteger(*connection, "SELECT COUNT(*) FROM t WHERE b IS NULL", {}), 0);
}

TEST_F(EngineTest, ErrorsCarryACloudCodeAndTheEngineText) {
    auto connection = SqliteConnection::open(databaseFile());
    try {
        connection->execute("SELECT * FROM missing_table");
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kInternalError);
        EXPECT_NE(std::string(error.what()).find("missing_table"), std::string::npos);
        EXPECT_TRUE(error.serverDescription());
    }
}

TEST_F(EngineTest, ANonDatabaseFileFailsWithAnErrorAndALogLine) {
    testing::writeFile(databaseFile(), std::string(8192, 'x'));
    std::vector<std::string> lines;
    setTraceSink([&](std::string_view line) { lines.emplace_back(line); });
    EXPECT_THROW(SqliteConnection::open(databaseFile()), CloudError);
    setTraceSink({});
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("not a database"), std::string::npos);
}

TEST_F(EngineTest, RollbackUndoesAndNestedUseOfAStatementWorks) {
    auto connection = SqliteConnection::open(databaseFile());
    connection->execute("CREATE TABLE t (i BIGINT)");
    {
        Transaction transaction(*connection, TransactionMode::write);
        connection->execute("INSERT INTO t VALUES (1)");
    }
    EXPECT_EQ(queryInteger(*connection, "SELECT COUNT(*) FROM t", {}), 0);
    connection->execute("INSERT INTO t VALUES (1)");
    connection->execute("INSERT INTO t VALUES (2)");
    int inner = 0;
    connection->execute("SELECT i FROM t", {}, [&](const SqlRow&) {
        connection->execute("SELECT i FROM t", {}, [&](const SqlRow&) { ++inner; });
    });
    EXPECT_EQ(inner, 4);
}

TEST_F(EngineTest, AWriterWaitsForAnotherInsteadOfFailing) {
    auto first = SqliteConnection::open(databaseFile());
    first->execute("CREATE TABLE t (i BIGINT)");
    first->begin(TransactionMode::write);
    first->execute("INSERT INTO t VALUES (1)");
    auto waiting = std::async(std::launch::async, [&] {
        auto second = SqliteConnection::open(databaseFile());
        Transaction transaction(*second, TransactionMode::write);
        second->execute("INSERT INTO t VALUES (2)");
        transaction.commit();
    });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    first->commit();
    waiting.get();
    EXPECT_EQ(queryInteger(*first, "SELECT COUNT(*) FROM t", {}), 2);
}

TEST_F(EngineTest, SchemaIsCreatedOnceAndVersioned) {
    auto connection = SqliteConnection::open(databaseFile());
    prepareSchema(*connection);
    prepareSchema(*connection);
    EXPECT_EQ(
        queryInteger(*connection, "SELECT value FROM settings WHERE name = 'schema_version'", {}),
        kSchemaVersion);
    EXPECT_EQ(queryInteger(*connection, "SELECT COUNT(*) FROM records", {}), 0);
}

TEST_F(EngineTest, AFileFromANewerVersionIsRefusedUntouched) {
    auto connection = SqliteConnection::open(databaseFile());
    prepareSchema(*connection);
    connection->execute("UPDATE settings SET value = ? WHERE name = 'schema_version'",
                        {kSchemaVersion + 1});
    try {
        prepareSchema(*connection);
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kIncompatibleVersion);
    }
    EXPECT_THROW(openAs("ann@example.com"), CloudError);
}

TEST_F(EngineTest, PoolReusesConnectionsAndMakesMoreForConcurrentUse) {
    int made = 0;
    ConnectionPool pool([&]() -> std::unique_ptr<Connection> {
        ++made;
        return SqliteConnection::open(databaseFile());
    });
    { auto lease = pool.acquire(); }
    { auto lease = pool.acquire(); }
    EXPECT_EQ(made, 1);
    {
        auto a = pool.acquire();
        auto b = pool.acquire();
        EXPECT_NE(&*a, &*b);
    }
    EXPECT_EQ(made, 2);
}

TEST_F(EngineTest, PoolNeverHandsOutAConnectionInATransaction) {
    ConnectionPool pool(
        [&]() -> std::unique_ptr<Connection> { return SqliteConnection::open(databaseFile()); });
    {
        auto lease = pool.acquire();
        lease->execute("CREATE TABLE t (i BIGINT)");
        lease->begin(TransactionMode::write);
        lease->execute("INSERT INTO t VALUES (1)");
    }
    auto lease = pool.acquire();
    EXPECT_EQ(queryInteger(*lease, "SELECT COUNT(*) FROM t", {}), 0);
    lease->begin(TransactionMode::write);  // would fail inside a transaction
    lease->commit();
}

}  // namespace
}  // namespace corvane::cloud
