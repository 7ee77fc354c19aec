#include "lzfse/block_header.h"

#include <cstring>
#include <string>

#include "lzfse/bit_stream.h"
#include "lzfse/byte_io.h"
#include "lzfse/lzfse.h"

namespace corvane::lzfse {
namespace {

[[noreturn]] void fail(const char* what) {
    throw FormatError(std::string("lzfse: ") + what);
}

uint32_t field(uint64_t word, int first, int bits) {
    return static_cast<uint32_t>((word >> first) & ((uint64_t{1} << bits) - 1));
}

// The 360 frequencies in their stored order.
template <typename Header, typename Visit>
void forEachFrequency(Header& h, Visit visit) {
    for (auto& f : h.lFreq) {
        visit(f);
    }
    for (auto& f : h.mFreq) {
        visit(f);
    }
    for (auto& f : h.dFreq) {
        visit(f);
    }
    for (auto& f : h.literalFreq) {
        visit(f);
    }
}

// Prefix code of one frequency value: (bit count, code bits, lowest first).
struct FrequencyCode {
    int bits;
    uint32_t code;
};

FrequencyCode frequencyCode(uint32_t v) {
    if (v < 2) return {2, v << 1};
    if (v < 4) return {3, 1 + ((v - 2) << 2)};
    if (v < 8) return {5, 3 + ((v - 4) << 3)};
    if (v < 24) return {8, 7 + ((v - 8) << 4)};
    return {14, 15 + ((v - 24) << 4)};
}

// Packed tables: codes are read lowest bit first from bytes 32..headerSize-1, which they must
// fill exactly (fewer than 8 padding bits at the end).
void unpackFrequencies(const uint8_t* p, const uint8_t* end, BlockHeader& h) {
    uint64_t accum = 0;
    int count = 0;
    forEachFrequency(h, [&](uint16_t& f) {
        while (count <= 56 && p < end) {
            accum |= uint64_t{*p++} << count;
            count += 8;
        }
        int bits;
        uint32_t value;
        if ((accum & 1) == 0) {
            bits = 2;
            value = field(accum, 1, 1);
        } else if ((accum & 2) == 0) {
            bits = 3;
            value = 2 + field(accum, 2, 1);
        } else if ((accum & 4) == 0) {
            bits = 5;
            value = 4 + field(accum, 3, 2);
        } else if ((accum & 8) == 0) {
            bits = 8;
            value = 8 + field(accum, 4, 4);
        } else {
            bits = 14;
            value = 24 + field(accum, 4, 10);
        }
        if (bits > count) fail("frequency tables truncated");
        accum >>= bits;
        count -= bits;
        f = static_cast<uint16_t>(value);
    });
    if (p != end || count >= 8) fail("frequency tables have spare bytes");
}

BlockHeader parseV1(std::span<const uint8_t> block) {
    // Layout: magic, n_raw, n_payload (ignored), n_literals, n_matches, literal payload size,
    // lmd payload size, literal_bits i32, 4 x u16 literal states, lmd_bits i32, 3 x u16 l/m/d
    // states, u16 frequencies L[20] M[20] D[64] literal[256], 2 padding bytes.
    if (block.size() < kV1HeaderSize) fail("truncated bvx1 header");
    const uint8_t* p = block.data();
    BlockHeader h;
    h.nRawBytes = load32(p + 4);
    h.nLiterals = load32(p + 12);
    h.nMatches = load32(p + 16);
    h.nLiteralPayloadBytes = load32(p + 20);
    h.nLmdPayloadBytes = load32(p + 24);
    h.literalBits = static_cast<int32_t>(load32(p + 28));
    for (int i = 0; i < 4; ++i) {
        h.literalState[i] = load16(p + 32 + 2 * i);
    }
    h.lmdBits = static_cast<int32_t>(load32(p + 40));
    h.lState = load16(p + 44);
    h.mState = load16(p + 46);
    h.dState = load16(p + 48);
    const uint8_t* q = p + 50;
    forEachFrequency(h, [&](uint16_t& f) {
        f = load16(q);
        q += 2;
    });
    h.headerSize = kV1HeaderSize;
    return h;
}

BlockHeader parseV2(std::span<const uint8_t> block) {
    // Layout: magic, u32 n_raw, then three u64 words of bit fields, then the packed tables.
    if (block.size() < kV2FixedHeaderSize) fail("truncated bvx2 header");
    const uint8_t* p = block.data();
    uint64_t w0 = load64(p + 8);
    uint64_t w1 = load64(p + 16);
    uint64_t w2 = load64(p + 24);
    BlockHeader h;
    h.nRawBytes = load32(p + 4);
    h.nLiterals = field(w0, 0, 20);
    h.nLiteralPayloadBytes = field(w0, 20, 20);
    h.nMatches = field(w0, 40, 20);
    h.literalBits = static_cast<int>(field(w0, 60, 3)) - 7;
    for (int i = 0; i < 4; ++i) {
        h.literalState[i] = static_cast<uint16_t>(field(w1, 10 * i, 10));
    }
    h.nLmdPayloadBytes = field(w1, 40, 20);
    h.lmdBits = static_cast<int>(field(w1, 60, 3)) - 7;
    h.headerSize = field(w2, 0, 32);
    h.lState = static_cast<uint16_t>(field(w2, 32, 10));
    h.mState = static_cast<uint16_t>(field(w2, 42, 10));
    h.dState = static_cast<uint16_t>(field(w2, 52, 10));
    if (h.headerSize < kV2FixedHeaderSize || h.headerSize > block.size()) {
        fail("bad bvx2 header size");
    }
    // A bare 32-byte header means every frequency is zero.
    if (h.headerSize > kV2FixedHeaderSize) {
        unpackFrequencies(p + kV2FixedHeaderSize, p + h.headerSize, h);
    }
    return h;
}

template <size_t N>
uint32_t sum(const std::array<uint16_t, N>& freq) {
    uint32_t total = 0;
    for (uint16_t f : freq) {
        total += f;
    }
    return total;
}

}  // namespace

BlockHeader parseBlockHeader(std::span<const uint8_t> block) {
    if (block.size() < 4) fail("truncated block header");
    BlockHeader h = load32(block.data()) == kMagicV1 ? parseV1(block) : parseV2(block);
    if (h.nLiterals > kMaxLiterals || h.nMatches > kMaxMatches) fail("block counts too large");
    if (h.literalBits < -7 || h.literalBits > 0 || h.lmdBits < -7 || h.lmdBits > 0) {
        fail("bad payload bit count");
    }
    for (uint16_t s : h.literalState) {
        if (s >= kLiteralStates) fail("bad literal state");
    }
    if (h.lState >= kLStates || h.mState >= kMStates || h.dState >= kDStates) {
        fail("bad L/M/D state");
    }
    if (sum(h.lFreq) > kLStates || sum(h.mFreq) > kMStates || sum(h.dFreq) > kDStates ||
        sum(h.literalFreq) > kLiteralStates) {
        fail("frequency table sum too large");
    }
    uint64_t blockSize = uint64_t{h.headerSize} + h.nLiteralPayloadBytes + h.nLmdPayloadBytes;
    if (blockSize > block.size()) fail("truncated block payload");
    return h;
}

size_t packedHeaderSize(const BlockHeader& header) {
    size_t bits = 0;
    forEachFrequency(header,
                     [&](uint16_t f) { bits += static_cast<size_t>(frequencyCode(f).bits); });
    return kV2FixedHeaderSize + (bits + 7) / 8;
}

void writePackedHeader(const BlockHeader& h, uint8_t* out) {
    uint64_t w0 = uint64_t{h.nLiterals} | uint64_t{h.nLiteralPayloadBytes} << 20 |
                  uint64_t{h.nMatches} << 40 | static_cast<uint64_t>(h.literalBits + 7) << 60;
    uint64_t w1 = uint64_t{h.nLmdPayloadBytes} << 40 | static_cast<uint64_t>(h.lmdBits + 7) << 60;
    for (int i = 0; i < 4; ++i) {
        w1 |= uint64_t{h.literalState[i]} << (10 * i);
    }
    uint64_t w2 = uint64_t{h.headerSize} | uint64_t{h.lState} << 32 | uint64_t{h.mState} << 42 |
                  uint64_t{h.dState} << 52;
    store32(out, kMagicV2);
    store32(out + 4, h.nRawBytes);
    store64(out + 8, w0);
    store64(out + 16, w1);
    store64(out + 24, w2);

    // The writer stores 8 bytes at a time, so pack into a scratch area with room to spare.
    std::array<uint8_t, 360 * 14 / 8 + 16> packed{};
    ForwardBitWriter writer(packed.data());
    forEachFrequency(h, [&](uint16_t f) {
        FrequencyCode c = frequencyCode(f);
        writer.write(c.code, c.bits);
        writer.flush();
    });
    size_t size = writer.finish();
    std::memcpy(out + kV2FixedHeaderSize, packed.data(), size);
}

}  // namespace corvane::lzfse
