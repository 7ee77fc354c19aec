#include "objects/zlib.h"

#include "objects/split_zlib.h"

#include <gtest/gtest.h>

#include <zlib.h>

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

TEST(SplitZlib, IsOneOrdinaryStreamWhoseBodyStandsAlone) {
    const std::string head("blob 1234567\0", 13);
    // A body that repeats the head would borrow from it without the flush between them.
    Bytes echo;
    for (int i = 0; i < 200; ++i)
        echo.insert(echo.end(), head.begin(), head.end());
    for (const Bytes& body : {Bytes{}, Bytes{'x'}, echo, sampleData(3 << 20)}) {
        Bytes stream = zlibDeflateSplit(asBytes(head), body);
        Bytes whole = toBytes(head);
        whole.insert(whole.end(), body.begin(), body.end());
        EXPECT_EQ(zlibInflate(stream), whole) << body.size();
        auto split = zlibInflateSplit(stream);
        ASSERT_TRUE(split) << body.size();
        EXPECT_EQ(asText(split->head), head);
        EXPECT_EQ(split->body, body);
        // A strict reader: the whole stream, with its checksum, and nothing after it.
        z_stream check{};
        ASSERT_EQ(inflateInit(&check), Z_OK);
        Bytes out(body.size() + 1);
        check.next_in = split->bodyStream.data();
        check.avail_in = static_cast<uInt>(split->bodyStream.size());
        check.next_out = out.data();
        check.avail_out = static_cast<uInt>(out.size());
        EXPECT_EQ(inflate(&check, Z_FINISH), Z_STREAM_END) << body.size();
        EXPECT_EQ(check.avail_in, 0u);
        out.resize(check.total_out);
        inflateEnd(&check);
        EXPECT_EQ(out, body);
    }
    if (::testing::Test::HasFailure()) return;
    Bytes empty = zlibInflateSplit(zlibDeflateSplit(asBytes(head), {}))->bodyStream;
    EXPECT_EQ(empty, (Bytes{0x78, 0x9c, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01}));
}

TEST(SplitZlib, OtherStreamsAreNotTakenForSplitOnes) {
    const std::string head("tree 40\0", 9);
    Bytes body = sampleData(40000);
    Bytes whole = toBytes(head);
    whole.insert(whole.end(), body.begin(), body.end());
    // One stream without the flush, as other writers make loose objects.
    EXPECT_FALSE(zlibInflateSplit(zlibDeflate(whole)));
    // A sync flush marks the same spot but lets the body borrow from the head.
    Bytes echo;
    for (int i = 0; i < 50; ++i)
        echo.insert(echo.end(), head.begin(), head.end());
    z_stream stream{};
    ASSERT_EQ(deflateInit(&stream, Z_DEFAULT_COMPRESSION), Z_OK);
    Bytes synced(4096);
    stream.next_out = synced.data();
    stream.avail_out = static_cast<uInt>(synced.size());
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(head.data()));
    stream.avail_in = static_cast<uInt>(head.size());
    ASSERT_EQ(deflate(&stream, Z_SYNC_FLUSH), Z_OK);
    stream.next_in = echo.data();
    stream.avail_in = static_cast<uInt>(echo.size());
    ASSERT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    synced.resize(stream.total_out);
    deflateEnd(&stream);
    EXPECT_FALSE(zlibInflateSplit(synced));
    // Cut short, or too short to hold anything.
    Bytes split = zlibDeflateSplit(asBytes(head), body);
    EXPECT_FALSE(zlibInflateSplit(ByteView(split).first(split.size() - 100)));
    EXPECT_FALSE(zlibInflateSplit(ByteView(split).first(8)));
}

}  // namespace
}  // namespace corvane
