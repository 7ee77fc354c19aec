#include "cloud/sqlite_connection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "base/error.h"
#include "base/trace.h"
#include "cloud/error_codes.h"
#include "cloud/private_directory.h"

namespace corvane::cloud {
namespace {

// SQLite binds a null pointer as NULL, so empty values point at a static empty buffer.
constexpr char kEmpty[] = "";

class SqliteRow final : public SqlRow {
  public:
    explicit SqliteRow(sqlite3_stmt* statement) : statement_(statement) {}

    bool isNull(int column) const override {
        return sqlite3_column_type(statement_, column) == SQLITE_NULL;
    }
    std::int64_t integer(int column) const override {
        return sqlite3_column_int64(statement_, column);
    }
    std::string_view text(int column) const override {
        auto* data = sqlite3_column_text(statement_, column);
        auto size = sqlite3_column_bytes(statement_, column);
        if (!data) return {};
        return {reinterpret_cast<const char*>(data), static_cast<std::size_t>(size)};
    }
    ByteView blob(int column) const override {
        auto* data = sqlite3_column_blob(statement_, column);
        auto size = sqlite3_column_bytes(statement_, column);
        if (!data) return {};
        return {static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(size)};
    }

  private:
    sqlite3_stmt* statement_;
};

int cloudCode(int sqliteCode) {
    switch (sqliteCode & 0xff) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return kServiceUnavailable;
        case SQLITE_FULL:
            return kQuotaExceeded;
        default:
            return kInternalError;
    }
}

// Damage to the file is worth a line in the log even when a caller handles the error.
bool isDamage(int sqliteCode) {
    auto primary = sqliteCode & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_IOERR;
}

}  // namespace

std::unique_ptr<SqliteConnection> SqliteConnection::open(
    const std::filesystem::path& file, std::shared_ptr<SqliteCheckpointer> checkpointer) {
    if (file.has_parent_path()) createPrivateDirectories(file.parent_path());
    // Creating the file ourselves fixes its mode; SQLite gives its WAL files the same mode.
    // Only a new file is opened here: closing a descriptor of a file this process already has
    // open drops every POSIX lock the process holds on it, SQLite's included. Another process
    // would then believe it is the last user, delete the WAL and its index under our open
    // connections, and leave them reading an old snapshot for good.
    int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
        ::close(fd);
    } else if (errno != EEXIST) {
        std::string message =
            "Cannot open the cloud database " + file.string() + ": " + std::strerror(errno);
        throw CloudError(kInternalError, message, message);
    }
    // Whoever may write the file may change anybody's repositories in it: its owner, who can
    // always give themselves the right, and anyone its mode lets in.
    struct stat status {};
    bool known = ::stat(file.c_str(), &status) == 0;
    if (known && status.st_uid != ::geteuid()) {
        std::string message = "The cloud database " + file.string() +
                              " belongs to another user (uid " + std::to_string(status.st_uid) +
                              "); Corvane uses only a file of its own";
        throw CloudError(kPermissionFailure, message, message);
    }
    if (known && (status.st_mode & (S_IWGRP | S_IWOTH))) {
        std::string message = "The cloud database " + file.string() +
                              " can be changed by other users; make it private with chmod "
                              "600 " +
                              file.string();
        throw CloudError(kPermissionFailure, message, message);
    }

    sqlite3* db = nullptr;
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    int rc = sqlite3_open_v2(file.c_str(), &db, flags, nullptr);
    if (rc != SQLITE_OK) {
        std::string message = "Cannot open the cloud database " + file.string() + ": " +
                              (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        sqlite3_close_v2(db);
        throw CloudError(cloudCode(rc), message, message);
    }
    auto connection = std::make_unique<SqliteConnection>(Key{}, db, file);
    sqlite3_busy_timeout(db, kBusyTimeoutMilliseconds);

    // auto_vacuum only takes effect on a new file, before the first table exists.
    connection->execute("PRAGMA auto_vacuum = INCREMENTAL");
    std::string journalMode;
    // Turning a new file to write-ahead logging needs it to itself, and SQLite reports another
    // process opening it at that moment as busy at once, without waiting: wait here.
    constexpr int kRetryMilliseconds = 5;
    for (int waited = 0;; waited += kRetryMilliseconds) {
        try {
            connection->execute("PRAGMA journal_mode = WAL", {},
                                [&](const SqlRow& row) { journalMode = row.text(0); });
            break;
        } catch (const CloudError&) {
            if ((sqlite3_extended_errcode(db) & 0xff) != SQLITE_BUSY ||
                waited >= kBusyTimeoutMilliseconds)
                throw;
            std::this_thread::sleep_for(std::chrono::milliseconds(kRetryMilliseconds));
        }
    }
    if (journalMode != "wal") {
        std::string message =
            "The cloud database " + file.string() + " cannot use write-ahead logging here";
        throw CloudError(kInternalError, message, message);
    }
    // FULL: a save that returned survives a power cut, not only a crash of the process.
    connection->execute("PRAGMA synchronous = FULL");
    connection->execute("PRAGMA journal_size_limit = 67108864");
    // 32 MiB: most pages of a save of a hundred pack records reach the log once, instead of
    // spilling early and being read back (64 MiB saved a push of curl another second, for 46 MiB
    // more at its peak). The cache is emptied after each transaction (see commit).
    connection->execute("PRAGMA cache_size = -32768");
    if (checkpointer) {
        connection->checkpointer_ = std::move(checkpointer);
        sqlite3_wal_hook(
            db,
            [](void* context, sqlite3*, const char*, int pages) {
                if (pages >= SqliteCheckpointer::kPagesBeforeCheckpoint)
                    static_cast<SqliteCheckpointer*>(context)->request();
                return SQLITE_OK;
            },
            connection->checkpointer_.get());
    }
    return connection;
}

SqliteConnection::~SqliteConnection() {
    for (auto& [sql, cached] : statements_)
        sqlite3_finalize(cached.statement);
    sqlite3_close_v2(db_);
}

void SqliteConnection::begin(TransactionMode mode) {
    execute(mode == TransactionMode::write ? "BEGIN IMMEDIATE" : "BEGIN");
}

void SqliteConnection::commit() {
    execute("COMMIT");
    // An idle connection keeps no pages: memory follows the work under way.
    sqlite3_db_release_memory(db_);
}

void SqliteConnection::rollback() noexcept {
    if (sqlite3_get_autocommit(db_)) return;
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void SqliteConnection::releaseFreeSpace() {
    execute("PRAGMA incremental_vacuum");
}

void SqliteConnection::checkpoint() {
    int rc = sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    // Busy: another process is checkpointing the same log, which is as good.
    if (rc != SQLITE_OK && (rc & 0xff) != SQLITE_BUSY) fail(rc, "checkpoint");
}

sqlite3_stmt* SqliteConnection::prepare(std::string_view sql) const {
    sqlite3_stmt* statement = nullptr;
    int rc = sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()),
                                SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    if (rc != SQLITE_OK) fail(rc, sql);
    return statement;
}

std::int64_t SqliteConnection::run(std::string_view sql, std::span<const SqlParam> params,
                                   const RowHandler& onRow) {
    auto it = statements_.find(sql);
    if (it == statements_.end()) {
        it = statements_.emplace(std::string(sql), CachedStatement{prepare(sql), false}).first;
    }
    CachedStatement* cached = it->second.busy ? nullptr : &it->second;
    sqlite3_stmt* statement = cached ? cached->statement : prepare(sql);

    // Whatever happens below, the statement is left reset, unbound and free for reuse.
    struct Release {
        CachedStatement* cached;
        sqlite3_stmt* statement;
        ~Release() {
            sqlite3_reset(statement);
            sqlite3_clear_bindings(statement);
            if (cached)
                cached->busy = false;
            else
                sqlite3_finalize(statement);
        }
    } release{cached, statement};
    if (cached) cached->busy = true;

    int index = 1;
    for (const auto& param : params) {
        int rc = SQLITE_OK;
        if (std::holds_alternative<std::monostate>(param)) {
            rc = sqlite3_bind_null(statement, index);
        } else if (auto* integer = std::get_if<std::int64_t>(&param)) {
            rc = sqlite3_bind_int64(statement, index, *integer);
        } else if (auto* text = std::get_if<std::string_view>(&param)) {
            rc = sqlite3_bind_text64(statement, index, text->empty() ? kEmpty : text->data(),
                                     text->size(), SQLITE_STATIC, SQLITE_UTF8);
        } else if (auto* blob = std::get_if<ByteView>(&param)) {
            auto bytes = *blob;
            const void* data = bytes.empty() ? static_cast<const void*>(kEmpty) : bytes.data();
            rc = sqlite3_bind_blob64(statement, index, data, bytes.size(), SQLITE_STATIC);
        } else {
            throw CloudError(kInternalError, "The embedded cloud database takes no lists");
        }
        if (rc != SQLITE_OK) fail(rc, sql);
        ++index;
    }

    SqliteRow row(statement);
    for (;;) {
        int rc = sqlite3_step(statement);
        if (rc == SQLITE_DONE) break;
        if (rc != SQLITE_ROW) fail(rc, sql);
        if (onRow) onRow(row);
    }
    return sqlite3_changes64(db_);
}

void SqliteConnection::fail(int code, std::string_view doing) const {
    std::string message = "Cloud database " + file_.string() + ": " + sqlite3_errmsg(db_);
    if ((code & 0xff) == SQLITE_BUSY)
        message = "The cloud database " + file_.string() + " is busy in another process";
    if (isDamage(code)) trace(TraceModule::error, message + " (" + std::string(doing) + ")");
    throw CloudError(cloudCode(code), message, message);
}

}  // namespace corvane::cloud
