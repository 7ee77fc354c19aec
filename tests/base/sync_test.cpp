#include "base/sync.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace corvane {
namespace {

TEST(SyncArray, PrependKeepsOrderAndOutOfRangeChangesNothing) {
    SyncArray<std::string> array;
    array.prepend("c");
    array.prepend(std::vector<std::string>{"a", "b"});
    ASSERT_EQ(array.count(), 3u);
    EXPECT_EQ(array.element(0), "a");
    EXPECT_EQ(array.element(1), "b");
    EXPECT_EQ(array.element(2), "c");
    EXPECT_EQ(array.element(3), std::nullopt);
    EXPECT_EQ(array.remove(3), std::nullopt);
    EXPECT_EQ(array.remove(1), "b");
    EXPECT_EQ(array.count(), 2u);
    EXPECT_EQ(array.element(1), "c");
}

TEST(SyncDict, SetReplacesAndSnapshotsAreIndependent) {
    SyncDict<std::string, int> dict;
    EXPECT_EQ(dict.get("a"), std::nullopt);
    dict.set("a", 1);
    dict.set("a", 2);
    EXPECT_EQ(dict.get("a"), 2);
    auto snapshot = dict.values();
    dict.set("b", 3);
    EXPECT_EQ(snapshot.size(), 1u);
    EXPECT_EQ(dict.values().size(), 2u);

    SafeDict<int, std::string> safe;
    safe.set(1, "x");
    safe.set(1, "y");
    EXPECT_EQ(safe.get(1), "y");
    EXPECT_EQ(safe.get(2), std::nullopt);

    SyncBool flag;
    EXPECT_FALSE(flag.get());
    flag.set(true);
    EXPECT_TRUE(flag.get());
}

TEST(SyncArray, ProducersAndOneConsumerLoseNothing) {
    SyncArray<int> array;
    constexpr int kPerProducer = 5000;
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i)
                array.prepend(p * kPerProducer + i);
        });
    }
    std::vector<bool> seen(4 * kPerProducer, false);
    int taken = 0;
    while (taken < 4 * kPerProducer) {
        if (auto value = array.remove(0)) {
            ASSERT_FALSE(seen[static_cast<std::size_t>(*value)]);
            seen[static_cast<std::size_t>(*value)] = true;
            ++taken;
        }
    }
    for (auto& producer : producers)
        producer.join();
    EXPECT_EQ(array.count(), 0u);
}

}  // namespace
}  // namespace corvane
