// SqliteConnection: the embedded engine, one SQLite file shared by every process of the user.
// The file is created with mode 0600 in folders of mode 0700, kept in WAL mode with full
// syncs, and a busy timeout makes processes queue for the write lock instead of failing.
// One thread at a time (the pool's rule); statements are prepared once and kept.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <string>
#include <unordered_map>

#include "cloud/connection.h"
#include "cloud/sqlite_checkpointer.h"

namespace corvane::cloud {

class SqliteConnection final : public Connection {
  public:
    // How long a writer waits for another process's transaction before failing with code 6.
    static constexpr int kBusyTimeoutMilliseconds = 10 * 60 * 1000;

    // With a checkpointer, the write-ahead log is copied back into the file on its thread;
    // without one, by whichever commit fills it (SQLite's default).
    static std::unique_ptr<SqliteConnection> open(
        const std::filesystem::path& file,
        std::shared_ptr<SqliteCheckpointer> checkpointer = nullptr);

  private:
    struct Key {};  // only open() makes connections

  public:
    SqliteConnection(Key, sqlite3* db, std::filesystem::path file)
        : db_(db), file_(std::move(file)) {}
    ~SqliteConnection() override;
    SqliteConnection(const SqliteConnection&) = delete;
    SqliteConnection& operator=(const SqliteConnection&) = delete;

    SqlDialect dialect() const override { return SqlDialect::sqlite; }
    void begin(TransactionMode mode) override;
    void commit() override;
    void rollback() noexcept override;
    void releaseFreeSpace() override;
    // Copies what it can of the log into the file without waiting for readers or writers.
    void checkpoint();

  protected:
    std::int64_t run(std::string_view sql, std::span<const SqlParam> params,
                     const RowHandler& onRow) override;

  private:
    struct CachedStatement {
        sqlite3_stmt* statement = nullptr;
        bool busy = false;  // running; a nested use of the same text prepares a fresh one
    };

    struct TextHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>{}(text);
        }
    };

    sqlite3_stmt* prepare(std::string_view sql) const;
    [[noreturn]] void fail(int code, std::string_view doing) const;

    sqlite3* db_;
    std::filesystem::path file_;
    std::shared_ptr<SqliteCheckpointer> checkpointer_;
    std::unordered_map<std::string, CachedStatement, TextHash, std::equal_to<>> statements_;
};

}  // namespace corvane::cloud
