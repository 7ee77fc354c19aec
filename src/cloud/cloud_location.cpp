#include "cloud/cloud_location.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace corvane::cloud {
namespace {

std::filesystem::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
    return "/";
}

// An XDG base folder: the variable when it holds an absolute path (relative values are to be
// ignored), else the conventional folder under the home directory.
std::filesystem::path baseDirectory(const char* variable, const char* fallback) {
    if (const char* value = std::getenv(variable); value && *value == '/') return value;
    return homeDirectory() / fallback;
}

}  // namespace

CloudLocation cloudLocation() {
    CloudLocation location;
    location.assetCacheDirectory = baseDirectory("XDG_CACHE_HOME", ".cache") / "corvane" / "Assets";
    const char* cloud = std::getenv("CORVANE_CLOUD");
    std::string_view choice = cloud ? cloud : "";
    if (choice.starts_with("postgresql://") || choice.starts_with("postgres://")) {
        location.serverAddress = std::string(choice);
    } else if (!choice.empty()) {
        location.databaseFile = std::filesystem::path(choice);
    } else {
        location.databaseFile =
            baseDirectory("XDG_DATA_HOME", ".local/share") / "corvane" / "cloud.sqlite";
    }
    return location;
}

}  // namespace corvane::cloud
