#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <random>

#include "lzfse/block_header.h"
#include "lzfse/fse.h"
#include "lzfse/lzfse.h"

namespace corvane::lzfse {
namespace {

TEST(LzfseFse, SixtyFourStateTableMatchesTheWorkedExample) {
    const std::array<uint16_t, 4> freq = {40, 20, 3, 1};
    const std::array<uint8_t, 4> noExtra{};
    const std::array<uint32_t, 4> base{};
    std::array<ValueDecodeEntry, 64> dec{};
    buildValueDecodeTable(6, 4, freq.data(), noExtra.data(), base.data(), dec.data());
    // (state, bits read, next-state base) per run of the table.
    const int expected[][3] = {{0, 1, 16},  {23, 1, 62}, {24, 0, 0},  {39, 0, 15},
                               {40, 2, 16}, {41, 2, 20}, {52, 1, 0},  {59, 1, 14},
                               {60, 5, 32}, {61, 4, 0},  {62, 4, 16}, {63, 6, 0}};
    for (const auto& [state, bits, next] : expected) {
        EXPECT_EQ(dec[state].totalBits, bits) << state;
        EXPECT_EQ(dec[state].base, next) << state;
    }

    std::array<EncodeEntry, 4> enc{};
    buildEncodeTable(6, 4, freq.data(), enc.data());
    const int expectedEnc[][4] = {{16, 1, -8, 24}, {16, 2, 36, 52}, {32, 5, 59, 61}, {0, 6, 63, 0}};
    for (int s = 0; s < 3; ++s) {
        EXPECT_EQ(enc[s].threshold, expectedEnc[s][0]);
        EXPECT_EQ(enc[s].bits, expectedEnc[s][1]);
        EXPECT_EQ(enc[s].delta, expectedEnc[s][2]);
        EXPECT_EQ(enc[s].deltaLow, expectedEnc[s][3]);
    }
    EXPECT_EQ(enc[3].delta, 63);
}

TEST(LzfseFse, EncoderStepsRetraceDecoderStepsForNormalizedTables) {
    std::mt19937 rng(7);
    for (int round = 0; round < 50; ++round) {
        // Skewed counts with some unused symbols; round 0 has no counts at all.
        std::array<uint32_t, 256> counts{};
        if (round > 0) {
            for (auto& c : counts) {
                c = rng() % 3 == 0 ? 0 : (rng() % 1000) >> (rng() % 10);
            }
        }
        std::array<uint16_t, 256> freq{};
        normalizeCounts(counts.data(), 256, 10, freq.data());
        ASSERT_EQ(std::accumulate(freq.begin(), freq.end(), 0), 1024);
        for (int s = 0; s < 256; ++s) {
            ASSERT_TRUE(counts[s] == 0 || freq[s] > 0);
        }
        if (round == 0) {
            EXPECT_EQ(freq[0], 1024);
        }

        std::array<LiteralDecodeEntry, 1024> dec{};
        std::array<EncodeEntry, 256> enc{};
        buildLiteralDecodeTable(freq.data(), dec.data());
        buildEncodeTable(10, 256, freq.data(), enc.data());
        for (int s = 0; s < 256; ++s) {
            if (freq[s] == 0) continue;
            for (uint32_t x = 0; x < 1024; x += 1 + rng() % 64) {
                uint32_t state = x;
                std::array<uint8_t, 16> buffer{};
                ForwardBitWriter writer(buffer.data());
                fseEncode(state, enc[s], writer);
                writer.finish();
                // Decoding from the new state yields s, reads the same bits and returns to x.
                LiteralDecodeEntry e = dec[state];
                ASSERT_EQ(e.symbol, s);
                uint32_t written = buffer[0] | uint32_t{buffer[1]} << 8;
                ASSERT_EQ(e.base + (written & ((1u << e.bits) - 1)), x);
            }
        }
    }
}

TEST(LzfseFse, PackedHeaderReadsBackWhatWasWritten) {
    std::mt19937 rng(8);
    BlockHeader h;
    h.nRawBytes = 123456;
    h.nLiterals = 40000;
    h.nMatches = 9992;
    h.nLiteralPayloadBytes = 4;
    h.nLmdPayloadBytes = 9;
    h.literalBits = -3;
    h.lmdBits = 0;
    h.literalState = {1023, 0, 512, 7};
    h.lState = 63;
    h.mState = 1;
    h.dState = 255;
    // Values spanning every code length, kept within each table's state count.
    for (auto& f : h.lFreq) {
        f = static_cast<uint16_t>(rng() % 4);
    }
    for (auto& f : h.dFreq) {
        f = static_cast<uint16_t>(rng() % 5);
    }
    h.literalFreq[0] = 1000;
    h.literalFreq[1] = 24;
    h.mFreq[19] = 64;
    h.headerSize = packedHeaderSize(h);
    std::vector<uint8_t> block(h.headerSize + 13);
    writePackedHeader(h, block.data());
    BlockHeader back = parseBlockHeader(block);
    EXPECT_EQ(back.headerSize, h.headerSize);
    EXPECT_EQ(back.nRawBytes, h.nRawBytes);
    EXPECT_EQ(back.nLiterals, h.nLiterals);
    EXPECT_EQ(back.nMatches, h.nMatches);
    EXPECT_EQ(back.literalBits, h.literalBits);
    EXPECT_EQ(back.literalState, h.literalState);
    EXPECT_EQ(back.dState, h.dState);
    EXPECT_EQ(back.lFreq, h.lFreq);
    EXPECT_EQ(back.mFreq, h.mFreq);
    EXPECT_EQ(back.dFreq, h.dFreq);
    EXPECT_EQ(back.literalFreq, h.literalFreq);
    // One byte short of the payloads is an error.
    block.pop_back();
    EXPECT_THROW(parseBlockHeader(block), FormatError);
}

}  // namespace
}  // namespace corvane::lzfse
