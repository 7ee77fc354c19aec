// Helpers of the cloud tests: a fresh temporary folder per test with the environment pointed at
// it, containers opened as named accounts, small files to attach as assets, and a connection
// that fails (or kills its process) at a chosen statement. The suite runs on either engine: the
// embedded SQLite file, or, with CORVANE_TEST_ENGINE=postgresql, a team store of its own on the
// server that CORVANE_TEST_POSTGRES names as its administrator (scripts/test.sh starts one), with
// one database role per account, logging in over TCP (CORVANE_TEST_POSTGRES_TCP) by password.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>

#include "base/error.h"
#include "cloud/container.h"
#include "cloud/error_codes.h"
#include "cloud/postgres_connection.h"
#include "cloud/sqlite_connection.h"
#include "cloud/team_store.h"
#include "support/process.h"

namespace corvane::cloud::testing {

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

inline bool onPostgres() {
    const char* engine = std::getenv("CORVANE_TEST_ENGINE");
    return engine && std::string_view(engine) == "postgresql";
}

// Every test runs against its own folder (and its own database on a server); nothing of the
// machine's own store is touched.
class CloudTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("XDG_DATA_HOME", (root_ / "data").c_str(), 1);
        ::setenv("XDG_CACHE_HOME", (root_ / "cache").c_str(), 1);
        ::setenv("CORVANE_CLOUD", databaseFile().c_str(), 1);
        ::setenv("GIT_CONFIG_GLOBAL", (root_ / "gitconfig").c_str(), 1);
        ::setenv("GIT_CONFIG_NOSYSTEM", "1", 1);
        if (!onPostgres()) return;
        const char* server = std::getenv("CORVANE_TEST_POSTGRES");
        if (!server) GTEST_SKIP() << "no PostgreSQL server: scripts/test.sh starts one";
        server_ = server;
        const char* tcp = std::getenv("CORVANE_TEST_POSTGRES_TCP");
        peopleServer_ = tcp ? tcp : server;
        static int counter = 0;
        // Process ids come round again within one run, and roles outlive their tests' databases.
        static const std::string run = std::to_string(std::random_device{}() % 1000000);
        suffix_ = std::to_string(::getpid()) + "_" + run + "_" + std::to_string(++counter);
        databaseName_ = "corvane_test_" + suffix_;
        PostgresConnection::open(server_)->execute("CREATE DATABASE " + databaseName_);
        initTeamStore(*storeAdministrator());
    }

    void TearDown() override {
        if (databaseName_.empty()) return;
        PostgresConnection::open(server_)->execute("DROP DATABASE " + databaseName_ +
                                                   " WITH (FORCE)");
    }

    // A connection that sees every row: the file itself, or the store's administrator (who
    // finds the store's tables by their plain names).
    std::unique_ptr<Connection> adminConnection() const {
        if (!onPostgres()) return SqliteConnection::open(databaseFile());
        auto admin = storeAdministrator();
        admin->execute("SET search_path = corvane");
        return admin;
    }
    std::unique_ptr<PostgresConnection> storeAdministrator() const {
        return PostgresConnection::open(server_ + " dbname=" + databaseName_);
    }

    // The database role of the address in this test: its letters and digits, the rest as "_",
    // and the test's own mark (roles belong to the whole server).
    std::string roleFor(const std::string& email) const {
        std::string role = "t_";
        for (char c : email)
            role += std::isalnum(static_cast<unsigned char>(c)) ? static_cast<char>(std::tolower(c))
                                                                : '_';
        return role.substr(0, 40) + "_" + suffix_;
    }

    // How the account with this address connects: to the file, or as its own role (made a
    // person of the store on first use).
    ConnectionFactory factoryFor(const std::string& email) const {
        if (!onPostgres()) {
            auto file = databaseFile();
            return [file] { return SqliteConnection::open(file); };
        }
        auto role = roleFor(email);
        if (auto password =
                addPerson(*storeAdministrator(),
                          NewPerson{role, email, email.substr(0, email.find('@')) + " Tester"}))
            passwords_[role] = *password;
        auto address = roleAddress(role);
        return [address] { return PostgresConnection::open(address); };
    }

    // The store's server as the role logs in to it, over TCP with its password (team stores
    // only).
    std::string roleAddress(const std::string& role) const {
        auto password = passwords_.find(role);
        return peopleServer_ + " dbname=" + databaseName_ + " user=" + role +
               (password == passwords_.end() ? "" : " password=" + password->second);
    }
    const std::string& databaseName() const { return databaseName_; }
    const std::string& server() const { return server_; }

    std::filesystem::path databaseFile() const { return root_ / "data" / "cloud.sqlite"; }
    std::filesystem::path cacheDirectory() const { return root_ / "cache" / "Assets"; }
    const std::filesystem::path& folder() const { return root_; }

    ContainerOptions optionsFor(const std::string& email) const {
        ContainerOptions options;
        options.assetCacheDirectory = cacheDirectory();
        options.account.email = email;
        auto at = email.find('@');
        options.account.name = NameComponents{email.substr(0, at), std::string("Tester")};
        return options;
    }

    std::unique_ptr<Container> openAs(const std::string& email) const {
        return Container::open(factoryFor(email), optionsFor(email));
    }

    // A file holding `content`, to attach as an asset.
    std::filesystem::path file(const std::string& name, const std::string& content) const {
        auto path = root_ / "files" / name;
        writeFile(path, content);
        return path;
    }

  private:
    corvane::testing::TempDir tempDir_;
    const std::filesystem::path root_{tempDir_.path()};
    std::string server_;
    std::string peopleServer_;
    std::string suffix_;
    std::string databaseName_;
    mutable std::map<std::string, std::string> passwords_;
};

// For the cases that are about the embedded file itself.
#define SKIP_ON_POSTGRES() \
    if (onPostgres()) GTEST_SKIP() << "about the embedded SQLite file only"

inline Record makeRecord(const std::string& type, const std::string& name, const ZoneId& zone) {
    return Record(type, RecordId{name, zone});
}

inline std::vector<Record> saveAll(Database& database, std::vector<Record> records,
                                   SavePolicy policy = SavePolicy::ifServerRecordUnchanged,
                                   bool atomic = true) {
    ModifyRecordsOperation operation;
    operation.recordsToSave = std::move(records);
    operation.savePolicy = policy;
    operation.atomic = atomic;
    return database.modifyRecords(operation);
}

inline Record saveOne(Database& database, Record record,
                      SavePolicy policy = SavePolicy::ifServerRecordUnchanged) {
    return saveAll(database, {std::move(record)}, policy).at(0);
}

inline FetchResult fetchOne(Database& database, const RecordId& id) {
    std::vector<RecordId> ids{id};
    return database.fetchRecords(ids).at(0);
}

// What a FaultyConnection does when its countdown reaches zero.
using FaultAction = std::function<void()>;
inline void failStatement() {
    throw CloudError(kInternalError, "injected failure");
}
inline void killProcess() {
    ::raise(SIGKILL);
}

// A connection that passes everything to a real one, counting statements and transaction
// steps; when the countdown reaches zero it runs its fault action before that step (failing
// it, killing the process, or changing the world under the store's feet).
class FaultyConnection final : public Connection {
  public:
    // The countdown belongs to the test and outlives the container.
    FaultyConnection(std::unique_ptr<Connection> inner, int& countdown, FaultAction fault)
        : inner_(std::move(inner)), countdown_(countdown), fault_(std::move(fault)) {}

    SqlDialect dialect() const override { return inner_->dialect(); }
    void begin(TransactionMode mode) override {
        tick();
        inner_->begin(mode);
    }
    void commit() override {
        tick();
        inner_->commit();
    }
    void rollback() noexcept override { inner_->rollback(); }
    void releaseFreeSpace() override { inner_->releaseFreeSpace(); }

  protected:
    std::int64_t run(std::string_view sql, std::span<const SqlParam> params,
                     const RowHandler& onRow) override {
        tick();
        return inner_->execute(sql, params, onRow);
    }

  private:
    void tick() {
        if (--countdown_ == 0) fault_();
    }

    std::unique_ptr<Connection> inner_;
    int& countdown_;
    FaultAction fault_;
};

inline ConnectionFactory faultyFactory(const std::filesystem::path& file, int& countdown,
                                       FaultAction fault) {
    return [file, &countdown, fault]() -> std::unique_ptr<Connection> {
        return std::make_unique<FaultyConnection>(SqliteConnection::open(file), countdown, fault);
    };
}

inline ConnectionFactory faultyFactory(ConnectionFactory inner, int& countdown, FaultAction fault) {
    return [inner, &countdown, fault]() -> std::unique_ptr<Connection> {
        return std::make_unique<FaultyConnection>(inner(), countdown, fault);
    };
}

// The code of the CloudError that `attempt` throws; 0 when it throws none.
inline int codeOf(const std::function<void()>& attempt) {
    try {
        attempt();
    } catch (const CloudError& error) {
        return error.code();
    }
    return 0;
}

}  // namespace corvane::cloud::testing
