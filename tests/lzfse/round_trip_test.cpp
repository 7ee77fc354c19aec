#include <gtest/gtest.h>

#include <functional>

#include "lzfse/block_writer.h"
#include "lzfse/lzfse.h"
#include "lzfse/test_data.h"

namespace corvane::lzfse::test {
namespace {

struct Shape {
    const char* name;
    std::function<Bytes(size_t)> make;
};

const std::vector<Shape>& shapes() {
    static const std::vector<Shape> all = {
        {"random", [](size_t n) { return randomBytes(n, 1); }},
        // Few symbols: entropy coding pays, matches are short; blocks fill up with literals.
        {"low-entropy", [](size_t n) { return randomBytes(n, 2, 16); }},
        {"runs", [](size_t n) { return repeated("abcabcabcabc-hello-world-0123456789", n); }},
        {"zeros", [](size_t n) { return Bytes(n, 0); }},
        {"json",
         [](size_t n) {
             Bytes b = toBytes(metadataJson(n, 3));
             b.resize(n);
             return b;
         }},
    };
    return all;
}

TEST(LzfseRoundTrip, EveryShapeRoundTripsAtSizesAroundTheFormatLimits) {
    // Raw/LZVN switch at 8, LZVN literal and match opcode limits (15/16, 271/272), the LZVN
    // literal backlog (400), LZVN distance forms (1536, 16384, 65536), LZVN/LZFSE switch at
    // 4096, the LZFSE literal backlog (2520), block literal limit (39984, 40000), the LZFSE
    // distance limit (262139) and sizes beyond one block.
    const size_t sizes[] = {0,     1,     7,     8,      9,      15,     16,     17,
                            271,   272,   400,   401,    1535,   1536,   2520,   2521,
                            4095,  4096,  4097,  16383,  16384,  39984,  40000,  40001,
                            65535, 65536, 65537, 262139, 262140, 262144, 1048579};
    for (const Shape& shape : shapes()) {
        for (size_t n : sizes) {
            SCOPED_TRACE(std::string(shape.name) + " " + std::to_string(n));
            Bytes input = shape.make(n);
            Bytes encoded = encode(input);
            ASSERT_TRUE(decode(encoded) == input);

            // Block kinds: raw when tiny or incompressible, LZVN below 4096, LZFSE above.
            char first = blocksOf(encoded).front().kind;
            bool incompressible = encoded.size() >= n + 12;
            if (n < 8 || std::string(shape.name) == "random") {
                EXPECT_EQ(first, '-');
            } else if (!incompressible) {
                EXPECT_EQ(first, n < 4096 ? 'n' : '2');
            }
            EXPECT_LE(encoded.size(), n + 12);
        }
    }
}

TEST(LzfseRoundTrip, LargeInputsFillBlocksToTheirTripleAndLiteralLimits) {
    // JSON fills blocks with short matches; random bytes (before a long run that makes the
    // whole stream worth compressing) fill them with literals.
    Bytes json = toBytes(metadataJson(8'000'000, 4));
    Bytes randomThenZeros = randomBytes(300'000, 5);
    randomThenZeros.resize(600'000, 0);
    bool tripleLimitHit = false;
    bool literalLimitHit = false;
    for (const Bytes* input : {&json, &randomThenZeros}) {
        Bytes encoded = encode(*input);
        ASSERT_TRUE(decode(encoded) == *input);
        for (const BlockInfo& b : blocksOf(encoded)) {
            EXPECT_LE(b.nMatches, 9992u);
            EXPECT_LE(b.nLiterals, 39984u + 4);
            tripleLimitHit |= b.nMatches == 9992;
            literalLimitHit |= b.nLiterals >= 39984 - 315;
        }
    }
    EXPECT_TRUE(tripleLimitHit);
    EXPECT_TRUE(literalLimitHit);
}

// Runs triples the slow, obvious way.
void applyTriple(Bytes& out, const Triple& t, const uint8_t* literals) {
    out.insert(out.end(), literals, literals + t.l);
    for (uint32_t i = 0; i < t.m; ++i) {
        out.push_back(out[out.size() - t.d]);
    }
}

TEST(LzfseRoundTrip, TriplesAtTheValueLimitsDecodeAcrossBlocks) {
    // Seven literal-only blocks build up more history than the farthest distance, then one
    // block uses the largest L, M and D, repeats distances and copies overlapping runs.
    Bytes literals = randomBytes(300'000, 6);
    Bytes stream;
    Bytes expected;
    BlockWriter writer;
    size_t used = 0;
    for (int block = 0; block < 7; ++block) {
        for (int i = 0; i < 126; ++i, used += 315) {
            Triple t{315, 0, 1};
            writer.add(t, literals.data() + used);
            applyTriple(expected, t, literals.data() + used);
        }
        writer.flush(stream);
    }
    const Triple extremes[] = {{315, 2359, 262139}, {0, 2359, 262139}, {1, 3, 1}, {0, 2359, 1},
                               {17, 300, 2},        {60, 56, 262139},  {0, 0, 9}, {3, 0, 1}};
    for (const Triple& t : extremes) {
        writer.add(t, literals.data() + used);
        applyTriple(expected, t, literals.data() + used);
        used += t.l;
    }
    writer.flush(stream);
    stream.insert(stream.end(), {'b', 'v', 'x', '$'});
    EXPECT_TRUE(decode(stream) == expected);
}

}  // namespace
}  // namespace corvane::lzfse::test
