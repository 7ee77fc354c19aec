// Store: the local object cache. One zlib-compressed git loose-object file per object under
// root/<first 3 id characters>/<id>, shared by all repositories. Files unused for a week expire.
// Nothing is held in memory: a long history's parsed objects would grow without bound, and the
// repository summaries answer what the daemon asks.
//
// Thread safety: every operation may run on any thread. Object files are written atomically
// (temporary file, then rename), so a reader sees no file or a whole one. The "cache_expiry" thread
// is owned by the Store and stopped by its destructor.
//
// Last use: Linux file systems often do not record access times (noatime, relatime), so the
// cache records use itself: every read and write sets the file's modification time to now, and
// the sweep judges a file by its modification time alone.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "objects/object.h"

namespace corvane {

class Store {
  public:
    using Clock = std::chrono::system_clock;

    struct Timing {
        std::chrono::seconds firstSweep{60};
        std::chrono::seconds sweepPeriod{3600};
        std::chrono::seconds cacheExpirationInterval{604800};  // 7 days
        bool runExpiryThread = true;
    };

    // $XDG_CACHE_HOME/corvane/Objects, or ~/.cache/corvane/Objects.
    static std::filesystem::path defaultRoot();

    explicit Store(std::filesystem::path root);
    Store(std::filesystem::path root, Timing timing);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    const std::filesystem::path& root() const { return root_; }

    // Writes the object file; fails on file-system and compression errors.
    void putObject(const Object& object);
    // Reads, verifies and parses an object file. A file whose contents do not hash to the id is
    // deleted ("Corrupted cache file for object <id>"); a bad header gives
    // "Failed to decode object <id>"; a missing file gives the system's error text.
    Object getObject(const std::string& id);
    // The same; when the file holds the data's own compressed blocks (files this cache wrote
    // do), dataStream receives the zlib stream of the data, ready for a pack entry.
    Object getObject(const std::string& id, std::optional<Bytes>* dataStream);
    bool hasObject(const std::string& id) const;
    // Links or copies a downloaded object file into place, keeping a sound file already there
    // and replacing a damaged one. The download itself is verified when first read (getObject
    // removes it if it is not the object its id names).
    void placeObjectFile(const std::string& id, const std::filesystem::path& file);
    // A path in the working folder root/zzz, for the caller to write and remove.
    std::filesystem::path workingFile(const std::string& name) const;
    std::filesystem::path objectPath(const std::string& id) const;

    // Deletes files not used since now - cacheExpirationInterval. Returns how many were deleted.
    std::size_t expire(Clock::time_point now);

  private:
    void expiryLoop();

    std::filesystem::path root_;
    Timing timing_;

    std::mutex mutex_;
    std::condition_variable stopRequested_;
    bool stopping_ = false;  // guarded by mutex_
    std::thread expiryThread_;
};

}  // namespace corvane
