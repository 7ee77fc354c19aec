// How much the stored contents take: each content counted once, however many records use it.
#pragma once

#include <cstdint>

namespace corvane::cloud {

struct StorageUsage {
    std::int64_t assetCount = 0;
    std::int64_t assetBytes = 0;
};

}  // namespace corvane::cloud
