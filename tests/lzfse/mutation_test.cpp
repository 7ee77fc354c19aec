#include <gtest/gtest.h>

#include <random>

#include "lzfse/lzfse.h"
#include "lzfse/test_data.h"

namespace corvane::lzfse::test {
namespace {

// Decodes and reports whether the stream was accepted; anything but FormatError fails the test.
bool accepted(const Bytes& stream) {
    try {
        decode(stream);
        return true;
    } catch (const FormatError&) {
        return false;
    } catch (const std::exception& e) {
        ADD_FAILURE() << "unexpected exception: " << e.what();
        return false;
    }
}

// Valid streams to corrupt: the smaller vectors, the reference's and ours.
std::vector<Bytes> seedStreams() {
    std::vector<Bytes> streams;
    for (const auto& name : vectorNames()) {
        Bytes lzfse = readFile(vectorDir() / (name + ".lzfse"));
        if (lzfse.size() > 60'000) continue;
        streams.push_back(lzfse);
        streams.push_back(encode(readFile(vectorDir() / (name + ".bin"))));
    }
    return streams;
}

void put32(Bytes& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        b[at + i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

TEST(LzfseMutation, RandomCorruptionOnlyEverThrowsFormatError) {
    std::mt19937 rng(20240611);
    auto below = [&](size_t n) { return n == 0 ? 0 : rng() % n; };
    std::vector<Bytes> streams = seedStreams();
    int rejected = 0;
    int total = 0;
    // The multi-block reference streams too, fewer times: they are slow under sanitizers.
    for (const char* big : {"repo_json_1m", "mixed_5m"}) {
        streams.push_back(readFile(vectorDir() / (std::string(big) + ".lzfse")));
    }
    for (const Bytes& original : streams) {
        int rounds = original.size() > 60'000 ? 30 : 400;
        for (int round = 0; round < rounds; ++round) {
            Bytes s = original;
            switch (round % 6) {
                case 0:  // truncation
                    s.resize(below(s.size()));
                    break;
                case 1:  // a few bit flips
                    for (int i = 0, n = 1 + round % 3; i < n; ++i) {
                        s[below(s.size())] ^= 1 << (rng() % 8);
                    }
                    break;
                case 2:  // a random byte, biased to the headers at the start
                    s[below(round % 12 == 2 ? std::min<size_t>(s.size(), 64) : s.size())] =
                        static_cast<uint8_t>(rng());
                    break;
                case 3:  // a byte removed or duplicated
                    if (rng() % 2) {
                        s.erase(s.begin() + static_cast<ptrdiff_t>(below(s.size())));
                    } else {
                        size_t at = below(s.size());
                        s.insert(s.begin() + static_cast<ptrdiff_t>(at), s[at]);
                    }
                    break;
                case 4: {  // a size or count field of some block set to a lie
                    auto blocks = blocksOf(original);
                    const BlockInfo& b = blocks[below(blocks.size() - 1)];
                    const uint32_t lies[] = {0, 1, 0xFFFFFFFF, 0x7FFFFFFF,
                                             le32(s, b.offset + 4) + 1};
                    size_t fields = b.kind == '1' ? 6 : b.kind == '2' ? 7 : 2;
                    size_t field = b.offset + 4 + 4 * below(fields);
                    if (field + 4 <= s.size()) put32(s, field, lies[below(5)]);
                    break;
                }
                default: {  // a stretch of the stream copied over another place
                    size_t from = below(s.size());
                    size_t to = below(s.size());
                    size_t n = std::min({below(64), s.size() - from, s.size() - to});
                    std::copy_n(original.begin() + static_cast<ptrdiff_t>(from), n,
                                s.begin() + static_cast<ptrdiff_t>(to));
                }
            }
            rejected += accepted(s) ? 0 : 1;
            ++total;
        }
    }
    // Most corruptions must be noticed (every truncation is); the rest decode to something.
    EXPECT_GT(rejected, total * 2 / 3);
}

TEST(LzfseMutation, DefinitelyBrokenStreamsAreRejected) {
    for (const Bytes& original : seedStreams()) {
        ASSERT_TRUE(accepted(original));
        for (const BlockInfo& b : blocksOf(original)) {
            SCOPED_TRACE(std::string("block ") + b.kind + " at " + std::to_string(b.offset));
            // Cut short anywhere before the end marker is complete.
            EXPECT_FALSE(
                accepted(Bytes(original.begin(),
                               original.begin() + static_cast<ptrdiff_t>(b.offset + b.size / 2))));
            EXPECT_FALSE(
                accepted(Bytes(original.begin(),
                               original.begin() + static_cast<ptrdiff_t>(b.offset + b.size - 1))));
            Bytes s = original;
            s[b.offset + 3] = '9';  // bvx9
            EXPECT_FALSE(accepted(s));
            if (b.kind == '$' || b.kind == '-') continue;
            // Declared output one byte off either way, or absurdly large.
            uint32_t nRaw = le32(original, b.offset + 4);
            for (uint32_t lie : {nRaw + 1, nRaw - 1, 0xFFFFFFFFu}) {
                s = original;
                put32(s, b.offset + 4, lie);
                EXPECT_FALSE(accepted(s));
            }
        }
    }
}

TEST(LzfseMutation, HostileLzvnOpcodesAreRejected) {
    Bytes good = encode(toBytes("abcabcabcabcabcabc-hello-hello-hello"));
    ASSERT_TRUE(accepted(good));
    // Payload starts at 12: C8 03 'abc' FB E6 ... ; the small match FB is at 17.
    auto patched = [&](size_t at, std::initializer_list<uint8_t> bytes) {
        Bytes s = good;
        std::copy(bytes.begin(), bytes.end(), s.begin() + static_cast<ptrdiff_t>(at));
        return s;
    };
    EXPECT_FALSE(accepted(patched(17, {0xFF})));              // match runs past the declared size
    EXPECT_FALSE(accepted(patched(12, {0xF5})));              // previous distance used before any
    EXPECT_FALSE(accepted(patched(12, {0xC8, 0x09})));        // distance beyond the output
    EXPECT_FALSE(accepted(patched(12, {0x7A})));              // undefined opcode
    EXPECT_FALSE(accepted(patched(12, {0xA0, 0x00, 0x00})));  // medium distance 0
    EXPECT_FALSE(accepted(patched(18, {0xEF})));              // literals run past the payload
    Bytes early = good;
    early[27] = 0x06;  // end opcode 12 bytes before the payload end, output missing
    EXPECT_FALSE(accepted(early));
    // 'a' and 1000 two-byte matches of 271 bytes at distance 1: the output outgrows what the
    // decoder reserves up front and keeps growing as bytes are produced.
    Bytes dense = {'b', 'v', 'x', 'n', 0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0x01, 'a'};
    for (int i = 0; i < 1000; ++i) {
        dense.insert(dense.end(), {0xF0, 0xFF});
    }
    dense.insert(dense.end(), {0x06, 0, 0, 0, 0, 0, 0, 0});
    put32(dense, 4, 4 + 1000 * 271);
    put32(dense, 8, static_cast<uint32_t>(dense.size() - 12));
    dense.insert(dense.end(), {'b', 'v', 'x', '$'});
    EXPECT_EQ(decode(dense), Bytes(4 + 1000 * 271, 'a'));
    // An empty, padded raw block; a raw block claiming 4 GB; an LZFSE header with garbage.
    EXPECT_TRUE(accepted({'b', 'v', 'x', '-', 0, 0, 0, 0, 'b', 'v', 'x', '$'}));
    EXPECT_FALSE(accepted({'b', 'v', 'x', '-', 0xFF, 0xFF, 0xFF, 0xFF, 'b', 'v', 'x', '$'}));
    Bytes v2(40, 0xFF);
    std::copy_n("bvx2", 4, v2.begin());
    EXPECT_FALSE(accepted(v2));
}

}  // namespace
}  // namespace corvane::lzfse::test
