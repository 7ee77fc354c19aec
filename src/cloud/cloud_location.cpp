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

// A libpq address: a URI, or a connection string of keyword=value pairs ("host=db dbname=x").
bool isServerAddress(std::string_view choice) {
    if (choice.starts_with("postgresql://") || choice.starts_with("postgres://")) return true;
    auto equals = choice.find('=');
    if (equals == 0 || equals == std::string_view::npos) return false;
    for (char c : choice.substr(0, equals)) {
        if (!((c >= 'a' && c <= 'z') || c == '_')) return false;
    }
    return true;
}

}  // namespace

CloudLocation cloudLocation() {
    CloudLocation location;
    location.assetCacheDirectory = baseDirectory("XDG_CACHE_HOME", ".cache") / "corvane" / "Assets";
    const char* cloud = std::getenv("CORVANE_CLOUD");
    std::string_view choice = cloud ? cloud : "";
    if (isServerAddress(choice)) {
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
