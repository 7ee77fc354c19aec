// Where the record store lives, read from the environment: CORVANE_CLOUD (a SQLite file path or
// a postgresql:// address), XDG_DATA_HOME, XDG_CACHE_HOME, HOME. Reads the environment only.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace corvane::cloud {

struct CloudLocation {
    std::optional<std::string> serverAddress;  // a libpq URI or keyword=value string
    std::filesystem::path databaseFile;        // when there is no server address
    std::filesystem::path assetCacheDirectory;
};

CloudLocation cloudLocation();

}  // namespace corvane::cloud
