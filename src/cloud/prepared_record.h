// A record on its way into the store: checked, and its contents hashed before any transaction
// starts, so that a write transaction holds its locks for database work only. Plain value.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "base/error.h"
#include "cloud/asset_file.h"
#include "cloud/record.h"

namespace corvane::cloud {

struct PreparedRecord {
    const Record* record = nullptr;
    std::map<std::string, std::pair<Asset, FileDigest>> digests;  // by assetKey
    std::optional<CloudError> error;
};

// Names an asset's bytes: its file, and its range of the file when it has one.
std::string assetKey(const Asset& asset);

}  // namespace corvane::cloud
