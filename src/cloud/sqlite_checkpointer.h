// SqliteCheckpointer: copies the write-ahead log back into the database file on a thread of its
// own ("wal_checkpoint"), instead of in the transaction that happened to fill the log. A long run
// of large saves (a push of a whole history) then writes its next transaction while the last one is
// copied, on another core. Connections ask for a checkpoint after each commit (see
// SqliteConnection::open); requests made while one runs are served by the next.
//
// Owned by the connections it serves (shared): the last one gone stops the thread, after the
// checkpoint under way. Thread-safe.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

namespace corvane::cloud {

class SqliteCheckpointer {
  public:
    // Log pages after which a commit asks for a checkpoint (SQLite's own default).
    static constexpr int kPagesBeforeCheckpoint = 1000;

    explicit SqliteCheckpointer(std::filesystem::path file);
    ~SqliteCheckpointer();
    SqliteCheckpointer(const SqliteCheckpointer&) = delete;
    SqliteCheckpointer& operator=(const SqliteCheckpointer&) = delete;

    void request();

  private:
    void run();

    std::filesystem::path file_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool requested_ = false;  // guarded by mutex_
    bool stopping_ = false;   // guarded by mutex_
    std::thread thread_;      // guarded by mutex_
};

}  // namespace corvane::cloud
