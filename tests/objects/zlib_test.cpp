#include "objects/zlib.h"

#include <gtest/gtest.h>

#include <random>

#include "support/error_message.h"

namespace corvane {
namespace {

Bytes sampleData(std::size_t size) {
    std::mt19937 random(42);
    Bytes data(size);
    // Half text-like, half noise, so the result needs several inflate passes.
    for (std::size_t i = 0; i < size; ++i) {
        data[i] = i % 2048 < 1024 ? static_cast<std::uint8_t>('a' + i % 23)
                                  : static_cast<std::uint8_t>(random());
    }
    return data;
}

TEST(Zlib, RoundTripsFromEmptyToSeveralMegabytes) {
    for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{1000},
                             std::size_t{(1 << 20) + 1}, std::size_t{5 << 20}}) {
        Bytes data = sampleData(size);
        Bytes compressed = zlibDeflate(data);
        if (size > 0) {
            ASSERT_GE(compressed.size(), 2u);
            EXPECT_EQ(compressed[0], 0x78);  // zlib header: deflate, 32K window
            EXPECT_EQ((compressed[0] * 256 + compressed[1]) % 31, 0);
        }
        EXPECT_EQ(zlibInflate(compressed), data) << size;
    }
}

TEST(Zlib, CorruptInputFailsAndTruncatedInputYieldsWhatItHolds) {
    EXPECT_EQ(testing::errorMessage([] { zlibInflate(asBytes("not zlib at all")); }),
              "Inflate error: incorrect header check");
    Bytes data = sampleData(300000);
    Bytes compressed = zlibDeflate(data);
    Bytes cut(compressed.begin(), compressed.begin() + compressed.size() / 2);
    Bytes partial = zlibInflate(cut);
    ASSERT_GT(partial.size(), 0u);
    ASSERT_LT(partial.size(), data.size());
    EXPECT_TRUE(std::equal(partial.begin(), partial.end(), data.begin()));
    // Bytes after a complete stream are ignored.
    Bytes trailing = compressed;
    trailing.push_back(0x55);
    EXPECT_EQ(zlibInflate(trailing), data);
}

}  // namespace
}  // namespace corvane
