#include <gtest/gtest.h>

#include <cmath>

#include "lzfse/lzfse.h"
#include "lzfse/test_data.h"

namespace corvane::lzfse::test {
namespace {

TEST(LzfseVectors, ReferenceStreamsDecodeToTheirBin) {
    auto names = vectorNames();
    ASSERT_GE(names.size(), 17u);
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        Bytes expected = readFile(vectorDir() / (name + ".bin"));
        EXPECT_TRUE(decode(readFile(vectorDir() / (name + ".lzfse"))) == expected);
    }
}

TEST(LzfseVectors, InvalidStreamsFailWithFormatError) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(vectorDir() / "invalid")) {
        if (entry.path().extension() != ".lzfse") continue;
        SCOPED_TRACE(entry.path().filename().string());
        EXPECT_THROW(decode(readFile(entry.path())), FormatError);
        ++count;
    }
    EXPECT_EQ(count, 7);
}

TEST(LzfseVectors, OurEncodingRoundTripsAndStaysNearReferenceSize) {
    for (const auto& name : vectorNames()) {
        SCOPED_TRACE(name);
        Bytes input = readFile(vectorDir() / (name + ".bin"));
        Bytes encoded = encode(input);
        EXPECT_TRUE(decode(encoded) == input);
        bool referenceMade = name.rfind("handmade", 0) != 0;
        if (referenceMade && input.size() > 4096) {
            double reference =
                static_cast<double>(readFile(vectorDir() / (name + ".lzfse")).size());
            EXPECT_LE(std::abs(static_cast<double>(encoded.size()) - reference), reference * 0.02);
        }
    }
}

TEST(LzfseVectors, BlocksOfEveryKindDecodeInAnyOrderSharingHistory) {
    // A raw block, text_3k's LZVN block, text_4096's bvx2 block and the bvx1 form of the same,
    // then junk after the end marker. Each compressed block only reaches back into its own
    // output, which now sits after other blocks' bytes.
    Bytes text3k = readFile(vectorDir() / "text_3k.lzfse");
    Bytes text4096 = readFile(vectorDir() / "text_4096.lzfse");
    Bytes v1 = readFile(vectorDir() / "handmade_v1_from_ref.lzfse");
    Bytes stream = {'b', 'v', 'x', '-', 3, 0, 0, 0, 'x', 'y', 'z'};
    for (const Bytes* s : {&text3k, &text4096, &v1}) {
        stream.insert(stream.end(), s->begin(), s->end() - 4);
    }
    stream.insert(stream.end(), {'b', 'v', 'x', '$', 0xFF, 0xFF});

    Bytes expected = {'x', 'y', 'z'};
    for (const char* name : {"text_3k", "text_4096", "text_4096"}) {
        Bytes part = readFile(vectorDir() / (std::string(name) + ".bin"));
        expected.insert(expected.end(), part.begin(), part.end());
    }
    EXPECT_TRUE(decode(stream) == expected);
}

TEST(LzfseVectors, WorkedExamplesAreReproducedExactly) {
    EXPECT_EQ(encode({}), (Bytes{0x62, 0x76, 0x78, 0x2D, 0, 0, 0, 0, 0x62, 0x76, 0x78, 0x24}));
    EXPECT_EQ(encode(Bytes{'A'}), readFile(vectorDir() / "one_byte.lzfse"));
    // The small LZVN block: literals carried by a small-distance opcode, a small match, a small
    // literal, another small-distance match, trailing literals and the end opcode.
    Bytes lzvn = encode(toBytes("abcabcabcabcabcabc-hello-hello-hello"));
    Bytes expected = {0x62, 0x76, 0x78, 0x6E, 0x24, 0,    0,    0,    0x1B, 0,    0,
                      0,    0xC8, 0x03, 0x61, 0x62, 0x63, 0xFB, 0xE6, 0x2D, 0x68, 0x65,
                      0x6C, 0x6C, 0x6F, 0x30, 0x06, 0xE3, 0x6C, 0x6C, 0x6F, 0x06, 0,
                      0,    0,    0,    0,    0,    0,    0x62, 0x76, 0x78, 0x24};
    EXPECT_EQ(lzvn, expected);
    EXPECT_EQ(decode(expected), toBytes("abcabcabcabcabcabc-hello-hello-hello"));
}

}  // namespace
}  // namespace corvane::lzfse::test
