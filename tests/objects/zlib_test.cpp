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

TEST(Zlib, RoundTripsAndReadsWhatACutStreamHolds) {
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

    // Corrupt input fails; a cut stream yields what it holds.
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

// The body length a loose-object head ("<type> <size>\0") declares.
std::optional<std::size_t> headSize(ByteView head) {
    auto text = asText(head);
    auto space = text.find(' ');
    if (space == std::string_view::npos || !text.ends_with('\0')) return std::nullopt;
    return std::stoul(std::string(text.substr(space + 1)));
}

// One zlib stream of head then body, with `flush` between them, as other writers and earlier
// releases make them.
Bytes zlibWithFlush(ByteView head, ByteView body, int flush) {
    z_stream stream{};
    EXPECT_EQ(deflateInit(&stream, Z_BEST_SPEED), Z_OK);
    Bytes output(deflateBound(&stream, static_cast<uLong>(head.size() + body.size())) + 16);
    stream.next_out = output.data();
    stream.avail_out = static_cast<uInt>(output.size());
    stream.next_in = const_cast<Bytef*>(head.data());
    stream.avail_in = static_cast<uInt>(head.size());
    EXPECT_EQ(deflate(&stream, flush), Z_OK);
    stream.next_in = const_cast<Bytef*>(body.data());
    stream.avail_in = static_cast<uInt>(body.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    output.resize(stream.total_out);
    deflateEnd(&stream);
    return output;
}

// What a strict reader makes of a whole zlib stream that must end exactly at the end.
Bytes strictInflate(ByteView stream, std::size_t expected) {
    z_stream check{};
    EXPECT_EQ(inflateInit(&check), Z_OK);
    Bytes out(expected + 1);
    check.next_in = const_cast<Bytef*>(stream.data());
    check.avail_in = static_cast<uInt>(stream.size());
    check.next_out = out.data();
    check.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(inflate(&check, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(check.avail_in, 0u);
    out.resize(check.total_out);
    inflateEnd(&check);
    return out;
}

TEST(SplitZlib, IsOneOrdinaryStreamWhoseBodyStandsAlone) {
    // A body that repeats the head would borrow from it if they shared a window.
    Bytes echo;
    for (int i = 0; i < 200; ++i) {
        auto piece = asBytes("blob 2600\0");
        echo.insert(echo.end(), piece.begin(), piece.end());
    }
    for (const Bytes& body : {Bytes{}, Bytes{'x'}, echo, sampleData(3 << 20)}) {
        const std::string head = "blob " + std::to_string(body.size()) + '\0';
        Bytes whole = toBytes(head);
        whole.insert(whole.end(), body.begin(), body.end());
        // Written now, and as earlier releases wrote it (head, full flush, body).
        for (const Bytes& stream : {zlibDeflateSplit(asBytes(head), body),
                                    zlibWithFlush(asBytes(head), body, Z_FULL_FLUSH)}) {
            EXPECT_EQ(strictInflate(stream, whole.size()), whole) << body.size();
            auto split = zlibInflateSplit(stream, headSize);
            ASSERT_TRUE(split) << body.size();
            EXPECT_EQ(asText(split->head), head);
            EXPECT_EQ(split->body, body);
            EXPECT_EQ(strictInflate(split->bodyStream, body.size()), body) << body.size();
        }
    }
}

TEST(SplitZlib, OtherStreamsAreNotTakenForSplitOnes) {
    const std::string head("tree 40000\0", 11);
    Bytes body = sampleData(40000);
    Bytes whole = toBytes(head);
    whole.insert(whole.end(), body.begin(), body.end());
    // One stream without the flush, as git makes loose objects.
    EXPECT_FALSE(zlibInflateSplit(zlibDeflate(whole), headSize));
    // A sync flush marks the same spot but lets the body borrow from the head.
    Bytes echo;
    for (int i = 0; i < 50; ++i)
        echo.insert(echo.end(), head.begin(), head.end());
    EXPECT_FALSE(zlibInflateSplit(zlibWithFlush(asBytes(head), echo, Z_SYNC_FLUSH), headSize));
    Bytes split = zlibDeflateSplit(asBytes(head), body);
    // A head declaring another length than the body has, or none.
    EXPECT_FALSE(zlibInflateSplit(split, [](ByteView) { return std::size_t{39999}; }));
    EXPECT_FALSE(zlibInflateSplit(split, [](ByteView) { return std::size_t{1} << 40; }));
    EXPECT_FALSE(zlibInflateSplit(split, [](ByteView) { return std::nullopt; }));
    // A damaged checksum, a stream cut short, or too short to hold anything.
    Bytes damaged = split;
    damaged.back() ^= 1;
    EXPECT_FALSE(zlibInflateSplit(damaged, headSize));
    EXPECT_FALSE(zlibInflateSplit(ByteView(split).first(split.size() - 100), headSize));
    EXPECT_FALSE(zlibInflateSplit(ByteView(split).first(8), headSize));
}

}  // namespace
}  // namespace corvane
