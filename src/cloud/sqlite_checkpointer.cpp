#include "cloud/sqlite_checkpointer.h"

#include "base/queues.h"
#include "base/trace.h"
#include "cloud/sqlite_connection.h"

namespace corvane::cloud {

SqliteCheckpointer::SqliteCheckpointer(std::filesystem::path file) : file_(std::move(file)) {}

SqliteCheckpointer::~SqliteCheckpointer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void SqliteCheckpointer::request() {
    {
        std::lock_guard lock(mutex_);
        requested_ = true;
        // Started by the first large commit: a process that only reads never needs it.
        if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
    }
    changed_.notify_one();
}

void SqliteCheckpointer::run() {
    setThreadName("wal_checkpoint");
    std::unique_ptr<SqliteConnection> connection;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return requested_ || stopping_; });
        if (stopping_) return;
        requested_ = false;
        lock.unlock();
        // A failed checkpoint loses nothing: the log keeps every page, and the next commit asks
        // again; the last connection to close checkpoints in any case.
        try {
            if (!connection) connection = SqliteConnection::open(file_);
            connection->checkpoint();
        } catch (const std::exception& error) {
            trace(TraceModule::error, std::string("Checkpoint failed: ") + error.what());
            connection.reset();
        }
        lock.lock();
    }
}

}  // namespace corvane::cloud
