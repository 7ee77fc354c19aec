#include "storage/object_id_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

namespace corvane {
namespace {

Digest digestFor(std::uint32_t value, std::uint8_t salt) {
    std::uint8_t bytes[5];
    std::memcpy(bytes, &value, sizeof value);
    bytes[4] = salt;
    return sha1(ByteView(bytes, sizeof bytes));
}

// Two threads number overlapping ids across several growths and chunks: every id gets one number,
// and every number reads back its id.
TEST(ObjectIdTable, NumbersEachIdOnceAcrossThreadsAndGrowth) {
    ObjectIdTable table;
    constexpr std::uint32_t kCount = 150000;
    std::vector<ObjectIdTable::Number> first(kCount), second(kCount);
    auto numberAll = [&](std::vector<ObjectIdTable::Number>& numbers, bool backwards) {
        for (std::uint32_t i = 0; i < kCount; ++i) {
            std::uint32_t value = backwards ? kCount - 1 - i : i;
            numbers[value] = table.number(digestFor(value, 1));
        }
    };
    std::thread other(numberAll, std::ref(second), true);
    numberAll(first, false);
    other.join();

    EXPECT_EQ(table.size(), kCount);
    EXPECT_EQ(first, second);
    std::vector<bool> used(kCount);
    for (std::uint32_t value = 0; value < kCount; ++value) {
        ASSERT_LT(first[value], kCount);
        EXPECT_FALSE(used[first[value]]) << "number handed out twice";
        used[first[value]] = true;
        EXPECT_EQ(table.digest(first[value]), digestFor(value, 1));
    }
    EXPECT_NE(table.number(digestFor(5, 2)), first[5]);
    EXPECT_EQ(table.size(), kCount + 1);
}

}  // namespace
}  // namespace corvane
