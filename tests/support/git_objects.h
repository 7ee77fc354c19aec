// Every object of a real git history, streamed from one `git cat-file --batch` process.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "base/bytes.h"

namespace corvane::testing {

// Mirrors the bundle into `folder` and calls back with each object's id, type name and data.
void forEachBundleObject(const std::string& bundle, const std::string& folder,
                         const std::function<void(const std::string& id, std::string_view type,
                                                  const Bytes& data)>& each);

// The shared test history of the lz4 project.
inline std::string lz4Bundle() {
    return std::string(CORVANE_SHARED_DIR) + "/testdata/lz4.bundle";
}

}  // namespace corvane::testing
