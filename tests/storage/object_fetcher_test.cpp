#include "storage/object_fetcher.h"

#include <gtest/gtest.h>

#include <future>
#include <map>

#include "storage/cloud_fixture.h"
#include "storage/repository.h"
#include "support/error_message.h"
#include "support/process.h"

namespace corvane {
namespace {

// A cloud of packs kept in memory: a download places the packs' objects in the cache.
struct FakeCloud {
    std::mutex mutex;
    std::map<std::string, std::vector<Object>> packs;         // guarded by mutex
    std::vector<std::pair<std::string, std::size_t>> passes;  // repository, pack count
    std::set<std::string> failingPacks;
    std::function<void()> beforeDownload;

    std::map<std::string, PackResult> download(Store& store, const std::string& name,
                                               const std::set<std::string>& packIds) {
        if (beforeDownload) beforeDownload();
        std::map<std::string, PackResult> results;
        std::lock_guard lock(mutex);
        passes.emplace_back(name, packIds.size());
        for (const auto& packId : packIds) {
            if (failingPacks.contains(packId)) {
                results[packId].error = "Record does not exist.";
                continue;
            }
            for (const auto& object : packs[packId]) {
                store.putObject(object);
                results[packId].placed.insert(object.id());
            }
        }
        return results;
    }
    Object add(const std::string& text) {
        Object object(ObjectType::blob, toBytes(text));
        std::lock_guard lock(mutex);
        packs[object.id().substr(0, 3)].push_back(object);
        return object;
    }
};

struct Fetcher : testing::StoreFixture {
    FakeCloud cloud;
    std::mutex loadedMutex;
    std::set<std::string> loaded;
    ObjectFetcher fetcher{
        store,
        [this](const std::string& name, const std::string&, const std::set<std::string>& packIds) {
            return cloud.download(store, name, packIds);
        },
        [this](const std::set<std::string>& ids) {
            std::lock_guard lock(loadedMutex);
            loaded.insert(ids.begin(), ids.end());
        }};
    Repository a{"a"};
    Repository b{"b"};
};

TEST_F(Fetcher, BatchesAtMostAHundredPacksPerPass) {
    std::vector<std::string> ids;
    std::set<std::string> prefixes;
    for (int i = 0; ids.size() < 250; ++i) {
        Object object = cloud.add("object " + std::to_string(i));
        std::string prefix = object.id().substr(0, 3);
        if (prefixes.size() < 150 || prefixes.contains(prefix)) {
            prefixes.insert(prefix);
            ids.push_back(object.id());
        }
    }
    ASSERT_EQ(prefixes.size(), 150u);
    fetcher.fetchObjects(ids, a);
    ASSERT_EQ(cloud.passes.size(), 2u);
    EXPECT_EQ(cloud.passes[0].second, 100u);
    EXPECT_EQ(cloud.passes[1].second, 50u);
    for (const auto& id : ids)
        EXPECT_TRUE(store.hasObject(id));
    std::lock_guard lock(loadedMutex);
    EXPECT_EQ(loaded.size(), 250u);
}

TEST_F(Fetcher, SameIdTwiceIsOneDownloadAndBothAreCalled) {
    Object object = cloud.add("twice");
    fetcher.pause();
    std::atomic<int> called{0};
    auto first = std::async(std::launch::async, [&] {
        fetcher.fetchObjects({object.id()}, a, [&](auto&, auto& error) { called += !error; });
    });
    auto second = std::async(std::launch::async, [&] {
        fetcher.fetchObjects({object.id()}, a, [&](auto&, auto& error) { called += !error; });
    });
    while (fetcher.pendingRequests().count() < 2)
        std::this_thread::yield();
    fetcher.resume();
    first.get();
    second.get();
    EXPECT_EQ(called.load(), 2);
    EXPECT_EQ(cloud.passes.size(), 1u);
    // Cached now: answered without another download.
    fetcher.fetchObjects({object.id()}, a);
    EXPECT_EQ(cloud.passes.size(), 1u);
}

TEST_F(Fetcher, NewerRequestsOfAnotherRepositoryGoFirst) {
    Object forA = cloud.add("for a");
    Object forB = cloud.add("for b");
    fetcher.pause();
    fetcher.prefetchObjects({forA.id()}, a);
    fetcher.prefetchObjects({forB.id()}, b);
    fetcher.resume();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    auto served = [&] {
        std::lock_guard lock(cloud.mutex);
        return cloud.passes.size() == 2;
    };
    while (!(store.hasObject(forA.id()) && served()) &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::lock_guard lock(cloud.mutex);
    ASSERT_EQ(cloud.passes.size(), 2u);
    EXPECT_EQ(cloud.passes[0].first, "b");
    EXPECT_EQ(cloud.passes[1].first, "a");
}

TEST_F(Fetcher, ReadingDownloadsWhatIsMissingOrDamagedAndReportsWhatCannotBe) {
    Object object = cloud.add("wanted");
    EXPECT_EQ(fetcher.readObject(object.id(), a), object);
    ASSERT_EQ(cloud.passes.size(), 1u);
    EXPECT_EQ(fetcher.readObject(object.id(), a), object);  // now from the cache alone
    EXPECT_EQ(cloud.passes.size(), 1u);
    // A cut-off file, as a full disk or a crash leaves it, is fetched again.
    auto path = store.objectPath(object.id());
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    EXPECT_EQ(fetcher.readObject(object.id(), a), object);
    EXPECT_EQ(cloud.passes.size(), 2u);

    // An object missing from its pack, and a pack that fails, are reported.
    std::string absent = object.id().substr(0, 3) + std::string(37, '0');
    EXPECT_EQ(testing::errorMessage([&] { fetcher.readObject(absent, a); }),
              "Missing object " + absent);
    Object present = cloud.add("present");
    absent = present.id().substr(0, 3) + std::string(37, '0');
    std::map<std::string, std::optional<std::string>> outcome;
    std::mutex mutex;
    fetcher.fetchObjects({present.id(), absent}, a, [&](const std::string& id, auto& error) {
        std::lock_guard lock(mutex);
        outcome[id] = error;
    });
    EXPECT_EQ(outcome[present.id()], std::nullopt);
    EXPECT_EQ(outcome[absent], "Missing object " + absent);

    cloud.failingPacks.insert("fff");
    std::string failing = "fff" + std::string(37, '1');
    EXPECT_EQ(testing::errorMessage([&] { fetcher.fetchObjects({failing}, a); }),
              "Record does not exist.");
}

TEST_F(Fetcher, SynchronousFetchThrowsTheFirstErrorWhileOthersArePending) {
    std::vector<std::string> ids;
    std::set<std::string> prefixes;
    for (int i = 0; prefixes.size() < 101; ++i) {
        Object object = cloud.add("pending " + std::to_string(i));
        if (prefixes.insert(object.id().substr(0, 3)).second) ids.push_back(object.id());
    }
    cloud.failingPacks.insert(ids[5].substr(0, 3));
    // The second pass (the 101st pack) blocks until the test lets it go.
    std::promise<void> release;
    auto released = release.get_future().share();
    // The fetcher's thread outlives this body, so the hook owns what it touches.
    auto downloads = std::make_shared<std::atomic<int>>(0);
    cloud.beforeDownload = [released, downloads] {
        if (++*downloads == 2) released.wait();
    };
    EXPECT_EQ(testing::errorMessage([&] { fetcher.fetchObjects(ids, a); }),
              "Record does not exist.");
    release.set_value();
}

TEST_F(Fetcher, StoppingCompletesWhatIsStillQueued) {
    testing::TempDir other;
    Store otherStore(other.path(), timing);
    std::optional<std::string> outcome;
    {
        ObjectFetcher stopped(
            otherStore, [](auto&, auto&, auto&) { return std::map<std::string, PackResult>{}; },
            [](auto&) {});
        stopped.pause();
        FetchRequest request{std::string(40, 'a'), "a", "o",
                             [&](const std::optional<std::string>& error) { outcome = error; }};
        stopped.pendingRequests().prepend(request);
    }
    EXPECT_EQ(outcome, "Object fetcher stopped");
}

}  // namespace
}  // namespace corvane
