#include "app/file_export.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/error.h"
#include "objects/tree.h"

namespace corvane {

namespace {

constexpr std::uint16_t kTypeBits = 0170000;
constexpr std::uint16_t kDirectory = 0040000;
constexpr std::uint16_t kSymbolicLink = 0120000;
constexpr std::uint16_t kSubmodule = 0160000;

Error failedWrite(const std::filesystem::path& path) {
    return Error("Could not write " + path.string() + ": " + std::strerror(errno));
}

void writeFile(const std::filesystem::path& path, const Bytes& data, bool executable) {
    // O_EXCL and O_NOFOLLOW: a name met twice fails instead of writing through what came first.
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    executable ? 0777 : 0666);
    if (fd < 0) throw failedWrite(path);
    std::size_t done = 0;
    while (done < data.size()) {
        auto written = ::write(fd, data.data() + done, data.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            auto failure = failedWrite(path);
            ::close(fd);
            throw failure;
        }
        done += static_cast<std::size_t>(written);
    }
    if (::close(fd) != 0) throw failedWrite(path);
}

}  // namespace

FileExport::FileExport(ObjectFetcher& fetcher, std::shared_ptr<const Repository> repository)
    : fetcher_(fetcher), repository_(std::move(repository)) {}

bool FileExport::write(const std::vector<Entry>& entries, const std::filesystem::path& folder) {
    for (const auto& entry : entries) {
        if (cancelled_) return false;
        writeEntry(entry, folder);
    }
    return !cancelled_;
}

void FileExport::writeEntry(const Entry& entry, const std::filesystem::path& folder) {
    if (cancelled_) return;
    if (entry.name.empty() || entry.name == "." || entry.name == ".." ||
        entry.name.find_first_of(std::string_view("/\0", 2)) != std::string::npos)
        throw Error("\"" + entry.name + "\" cannot be the name of a file");
    auto path = folder / entry.name;
    switch (entry.mode & kTypeBits) {
        case kDirectory: {
            if (::mkdir(path.c_str(), 0777) != 0) throw failedWrite(path);
            Tree tree = parseTree(fetcher_.readObject(entry.id, *repository_), TextCheck::none);
            for (const auto& child : tree.entries) {
                if (cancelled_) return;
                writeEntry({child.id, child.name, child.mode}, path);
            }
            return;
        }
        case kSubmodule:
            // Another repository's commit: its folder, empty, as a clone leaves it.
            if (::mkdir(path.c_str(), 0777) != 0) throw failedWrite(path);
            return;
        case kSymbolicLink: {
            Object target = fetcher_.readObject(entry.id, *repository_);
            std::string text(target.data().begin(), target.data().end());
            if (::symlink(text.c_str(), path.c_str()) != 0) throw failedWrite(path);
            ++filesWritten_;
            return;
        }
        default:
            writeFile(path, fetcher_.readObject(entry.id, *repository_).data(),
                      (entry.mode & 0111) != 0);
            ++filesWritten_;
    }
}

}  // namespace corvane
