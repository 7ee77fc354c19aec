#include "storage/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "base/error.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

std::string systemError() {
    return std::strerror(errno);
}

// A name unique to this process and call, beside the target.
fs::path temporaryBeside(const fs::path& target) {
    static std::atomic<std::uint64_t> counter{0};
    return target.parent_path() /
           ("." + target.filename().string() + "." + std::to_string(::getpid()) + "." +
            std::to_string(counter.fetch_add(1)) + ".tmp");
}

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

void writeAll(int fd, ByteView data) {
    while (!data.empty()) {
        ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            throw Error(systemError());
        }
        data = data.subspan(static_cast<std::size_t>(written));
    }
}

// A copy of source under a new name, with the cache's mode whatever the source's.
void copyPrivately(const fs::path& source, const fs::path& target) {
    Descriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) throw Error(systemError());
    Descriptor out(
        ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode));
    if (out.get() < 0) throw Error(systemError());
    try {
        std::uint8_t buffer[65536];
        for (;;) {
            ssize_t got = ::read(in.get(), buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) throw Error(systemError());
            if (got == 0) break;
            writeAll(out.get(), ByteView(buffer, static_cast<std::size_t>(got)));
        }
        if (::close(out.release()) != 0) throw Error(systemError());
    } catch (...) {
        ::unlink(target.c_str());
        throw;
    }
}

}  // namespace

Bytes readFile(const fs::path& path) {
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) throw Error(systemError());
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) throw Error(systemError());
    Bytes data(static_cast<std::size_t>(info.st_size));
    std::size_t done = 0;
    for (;;) {
        if (done == data.size()) data.resize(data.size() + 65536);  // the file grew
        ssize_t got = ::read(file.get(), data.data() + done, data.size() - done);
        if (got < 0) {
            if (errno == EINTR) continue;
            throw Error(systemError());
        }
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    data.resize(done);
    return data;
}

void writeFileAtomically(const fs::path& path, ByteView data) {
    fs::path temporary = temporaryBeside(path);
    {
        Descriptor file(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode));
        if (file.get() < 0) throw Error(systemError());
        try {
            writeAll(file.get(), data);
        } catch (...) {
            ::unlink(temporary.c_str());
            throw;
        }
        if (::close(file.release()) != 0) {
            ::unlink(temporary.c_str());
            throw Error(systemError());
        }
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        std::string error = systemError();
        ::unlink(temporary.c_str());
        throw Error(error);
    }
}

bool copyFileIfAbsent(const fs::path& source, const fs::path& target) {
    if (fs::exists(target)) return false;
    // A second name for the same file costs no copy. Nobody writes into a placed file (every
    // writer renames a new file over the name), so the two names can share it, and its mode:
    // a file others may read is copied instead.
    struct stat status {};
    if (::stat(source.c_str(), &status) != 0) throw Error(systemError());
    if ((status.st_mode & 077) == 0) {
        if (::link(source.c_str(), target.c_str()) == 0) return true;
        if (errno == EEXIST) return false;
    }
    fs::path temporary = temporaryBeside(target);
    copyPrivately(source, temporary);
    // link() refuses an existing target, so a file placed meanwhile by another thread stays.
    bool placed = ::link(temporary.c_str(), target.c_str()) == 0;
    if (!placed && errno != EEXIST) {
        std::string message = systemError();
        ::unlink(temporary.c_str());
        throw Error(message);
    }
    ::unlink(temporary.c_str());
    return placed;
}

bool useNoteDue(std::atomic<std::int64_t>& lastUse) {
    auto now = std::chrono::duration_cast<std::chrono::seconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count();
    auto last = lastUse.load(std::memory_order_relaxed);
    return now - last >= 3600 && lastUse.compare_exchange_strong(last, now);
}

}  // namespace corvane
