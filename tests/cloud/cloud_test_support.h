// Helpers of the cloud tests: a fresh temporary folder per test with the environment pointed at
// it, containers opened as named accounts, small files to attach as assets, and a connection
// that fails (or kills its process) at a chosen statement.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "base/error.h"
#include "cloud/container.h"
#include "cloud/error_codes.h"
#include "cloud/sqlite_connection.h"
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

// Every test runs against its own folder; nothing of the machine's own store is touched.
class CloudTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("XDG_DATA_HOME", (root_ / "data").c_str(), 1);
        ::setenv("XDG_CACHE_HOME", (root_ / "cache").c_str(), 1);
        ::setenv("CORVANE_CLOUD", databaseFile().c_str(), 1);
        ::setenv("GIT_CONFIG_GLOBAL", (root_ / "gitconfig").c_str(), 1);
        ::setenv("GIT_CONFIG_NOSYSTEM", "1", 1);
    }

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
        return Container::open(databaseFile(), optionsFor(email));
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
};

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

}  // namespace corvane::cloud::testing
