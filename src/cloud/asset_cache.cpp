#include "cloud/asset_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/error.h"
#include "base/trace.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"
#include "cloud/private_directory.h"

namespace corvane::cloud {
namespace {

constexpr std::string_view kTemporaryPrefix = "tmp-";

[[noreturn]] void fail(const std::string& message) {
    throw CloudError(kInternalError, message, message);
}

}  // namespace

bool AssetCache::holds(std::string_view hash, std::uint64_t size) const {
    auto path = pathFor(hash);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (static_cast<std::uint64_t>(status.st_size) != size) return false;
    ::utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
    return true;
}

void AssetCache::write(std::string_view hash, std::uint64_t size,
                       const std::function<void(const Sink&)>& produce) const {
    createPrivateDirectories(directory_);
    std::string temporary = (directory_ / kTemporaryPrefix).string() + "XXXXXX";
    int fd = ::mkstemp(temporary.data());  // mode 0600
    if (fd < 0) fail("Cannot write in " + directory_.string() + ": " + std::strerror(errno));
    struct Cleanup {
        int fd;
        const std::string& path;
        bool keep = false;
        ~Cleanup() {
            if (fd >= 0) ::close(fd);
            if (!keep) ::unlink(path.c_str());
        }
    } cleanup{fd, temporary};

    Sha256 sha;
    std::uint64_t written = 0;
    produce([&](ByteView piece) {
        sha.update(piece);
        written += piece.size();
        while (!piece.empty()) {
            auto count = ::write(fd, piece.data(), piece.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) fail("Cannot write " + temporary + ": " + std::strerror(errno));
            piece = piece.subspan(static_cast<std::size_t>(count));
        }
    });
    if (written != size || sha.finishHex() != hash)
        fail("The stored content " + std::string(hash) + " is damaged");
    int closing = ::close(cleanup.fd);
    cleanup.fd = -1;
    if (closing != 0) fail("Cannot write " + temporary + ": " + std::strerror(errno));
    if (::rename(temporary.c_str(), pathFor(hash).c_str()) != 0)
        fail("Cannot write " + pathFor(hash).string() + ": " + std::strerror(errno));
    cleanup.keep = true;
}

void AssetCache::sweep() const {
    namespace fs = std::filesystem;
    std::error_code error;
    auto now = fs::file_time_type::clock::now();
    int failures = 0;
    for (fs::directory_iterator it(directory_, error), end; !error && it != end;
         it.increment(error)) {
        const auto& path = it->path();
        auto name = path.filename().string();
        bool temporary = name.starts_with(kTemporaryPrefix);
        if (!temporary && !isContentHash(name)) continue;  // not ours
        std::error_code statError;
        auto modified = fs::last_write_time(path, statError);
        if (statError) continue;
        auto lifetime = temporary ? fs::file_time_type::duration(kAbandonedWriteLifetime)
                                  : fs::file_time_type::duration(kUnusedLifetime);
        if (now - modified < lifetime) continue;
        std::error_code removeError;
        if (!fs::remove(path, removeError) && removeError) ++failures;
    }
    if (failures)
        trace(TraceModule::error, "Could not remove " + std::to_string(failures) +
                                      " unused files from " + directory_.string());
}

}  // namespace corvane::cloud
