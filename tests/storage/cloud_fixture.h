// A real embedded record store and object cache in a fresh temporary folder.
#pragma once

#include <gtest/gtest.h>

#include "base/queues.h"
#include "cloud/container.h"
#include "storage/store.h"
#include "support/process.h"

namespace corvane::testing {

struct CloudFixture : ::testing::Test {
    TempDir dir;
    Store::Timing timing{.runExpiryThread = false};
    Store store{dir.path() + "/cache/Objects", timing};
    std::unique_ptr<cloud::Container> container = openAs("owner@example.com");

    std::unique_ptr<cloud::Container> openAs(const std::string& email) {
        cloud::ContainerOptions options;
        options.assetCacheDirectory = dir.path() + "/cache/Assets-" + email;
        options.account.email = email;
        return cloud::Container::open(dir.path() + "/cloud.sqlite", options);
    }
};

}  // namespace corvane::testing
