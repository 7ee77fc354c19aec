// FileExport: entries of a repository's trees written out to the file system, as a drag out of
// the Files view needs them: a file with its bytes (executable when the tree says so), a folder
// with everything under it, a symbolic link as a link, a submodule as an empty folder. Objects
// come from the cache, fetched from the cloud first when missing. Nothing already on disk is
// overwritten or followed: each file and folder is created new.
//
// Threads: write() runs on the caller's thread (a worker: fetching may take a while); cancel()
// and filesWritten() may be called from any other thread meanwhile.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "storage/object_fetcher.h"
#include "storage/repository.h"

namespace corvane {

class FileExport {
  public:
    struct Entry {
        std::string id;
        std::string name;
        std::uint16_t mode = 0100644;  // as the tree gives it
    };

    FileExport(ObjectFetcher& fetcher, std::shared_ptr<const Repository> repository);

    // Writes the entries into `folder`, which exists. False when cancelled before the end (what
    // was written stays). Throws Error on a name no file may have ("..", "a/b"), on an object
    // that cannot be had, or on a write the file system refuses.
    bool write(const std::vector<Entry>& entries, const std::filesystem::path& folder);
    void cancel() { cancelled_ = true; }
    std::size_t filesWritten() const { return filesWritten_; }

  private:
    void writeEntry(const Entry& entry, const std::filesystem::path& folder);

    ObjectFetcher& fetcher_;
    std::shared_ptr<const Repository> repository_;
    std::atomic<bool> cancelled_{false};
    std::atomic<std::size_t> filesWritten_{0};
};

}  // namespace corvane
