// An object cache in a fresh temporary folder; with it a real embedded record store and a backend
// over both whose asynchronous answers the test waits for.
#pragma once

#include <gtest/gtest.h>

#include "base/queues.h"
#include "cloud/container.h"
#include "storage/backend.h"
#include "storage/store.h"
#include "support/process.h"

namespace corvane::testing {

struct StoreFixture : ::testing::Test {
    TempDir dir;
    Store::Timing timing{.runExpiryThread = false};
    Store store{dir.path() + "/Objects", timing};
};

struct CloudFixture : StoreFixture {
    std::unique_ptr<cloud::Container> container = openAs("owner@example.com");
    LoopMainQueue mainQueue;
    std::vector<std::shared_ptr<Repository>> updated;  // what the backend reported as saved
    Backend backend{*container,
                    store,
                    mainQueue,
                    {[this](std::shared_ptr<Repository> r) { updated.push_back(r); },
                     [](const std::set<std::string>&) {}}};

    std::unique_ptr<cloud::Container> openAs(const std::string& email) {
        cloud::ContainerOptions options;
        options.assetCacheDirectory = dir.path() + "/cache/Assets-" + email;
        options.account.email = email;
        return cloud::Container::open(dir.path() + "/cloud.sqlite", options);
    }

    // Runs the main queue until `start`'s completion is called, and returns its value.
    template <typename T, typename Start>
    T wait(Start start) {
        std::optional<Result<T>> outcome;
        start([&](Result<T> result) {
            outcome.emplace(std::move(result));
            mainQueue.stop();
        });
        mainQueue.run();
        return std::move(outcome->value());
    }
    std::shared_ptr<Repository> create(const std::string& name) {
        return wait<std::shared_ptr<Repository>>(
            [&](auto done) { backend.createRepository(name, done); });
    }
};

}  // namespace corvane::testing
