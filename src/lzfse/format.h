// Constants of the LZFSE stream format shared by encoder and decoder: block magics, per-block
// limits, table sizes and the L/M/D value-to-symbol coding. Compile-time data; thread-safe.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace corvane::lzfse {

// Block magics as little-endian u32 ("bvx$", "bvx-", "bvxn", "bvx1", "bvx2").
inline constexpr uint32_t kMagicEnd = 0x24787662;
inline constexpr uint32_t kMagicRaw = 0x2D787662;
inline constexpr uint32_t kMagicLzvn = 0x6E787662;
inline constexpr uint32_t kMagicV1 = 0x31787662;
inline constexpr uint32_t kMagicV2 = 0x32787662;

// Per-block limits of LZFSE blocks.
inline constexpr uint32_t kMaxLiterals = 40000;
inline constexpr uint32_t kMaxMatches = 10000;
inline constexpr uint32_t kMaxL = 315;
inline constexpr uint32_t kMaxM = 2359;
inline constexpr uint32_t kMaxD = 262139;
inline constexpr uint32_t kMaxLzvnD = 65535;

// Inputs below this size go to LZVN, from it on to LZFSE blocks.
inline constexpr size_t kLzvnThreshold = 4096;

// Header sizes: bvx1 is fixed; bvx2 has 32 fixed bytes before the packed frequency tables.
inline constexpr size_t kV1HeaderSize = 772;
inline constexpr size_t kV2FixedHeaderSize = 32;

// Symbols and states of the four entropy coders.
inline constexpr int kLSymbols = 20;
inline constexpr int kMSymbols = 20;
inline constexpr int kDSymbols = 64;
inline constexpr int kLiteralSymbols = 256;
inline constexpr int kLStateBits = 6;
inline constexpr int kMStateBits = 6;
inline constexpr int kDStateBits = 8;
inline constexpr int kLiteralStateBits = 10;
inline constexpr uint32_t kLStates = 1u << kLStateBits;
inline constexpr uint32_t kMStates = 1u << kMStateBits;
inline constexpr uint32_t kDStates = 1u << kDStateBits;
inline constexpr uint32_t kLiteralStates = 1u << kLiteralStateBits;

// The LMD payload opens with this many zero bytes so a backward reader never needs earlier bytes.
inline constexpr size_t kLmdPrefixBytes = 8;

inline constexpr std::array<uint8_t, kLSymbols> kLExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                               0, 0, 0, 0, 0, 0, 2, 3, 5, 8};
inline constexpr std::array<uint32_t, kLSymbols> kLBase = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                                           10, 11, 12, 13, 14, 15, 16, 20, 28, 60};
inline constexpr std::array<uint8_t, kMSymbols> kMExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                               0, 0, 0, 0, 0, 0, 3, 5, 8, 11};
inline constexpr std::array<uint32_t, kMSymbols> kMBase = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                                           10, 11, 12, 13, 14, 15, 16, 24, 56, 312};

// D symbol s carries s / 4 extra bits; bases follow as running sums of 2^(s / 4).
inline constexpr std::array<uint8_t, kDSymbols> kDExtraBits = [] {
    std::array<uint8_t, kDSymbols> bits{};
    for (int s = 0; s < kDSymbols; ++s) {
        bits[s] = static_cast<uint8_t>(s / 4);
    }
    return bits;
}();
inline constexpr std::array<uint32_t, kDSymbols> kDBase = [] {
    std::array<uint32_t, kDSymbols> base{};
    for (int s = 1; s < kDSymbols; ++s) {
        base[s] = base[s - 1] + (1u << kDExtraBits[s - 1]);
    }
    return base;
}();

// Value-to-symbol maps for L and M (small ranges, so plain tables).
inline constexpr std::array<uint8_t, kMaxL + 1> kLSymbolOf = [] {
    std::array<uint8_t, kMaxL + 1> table{};
    int s = 0;
    for (uint32_t v = 0; v <= kMaxL; ++v) {
        while (s + 1 < kLSymbols && kLBase[s + 1] <= v) {
            ++s;
        }
        table[v] = static_cast<uint8_t>(s);
    }
    return table;
}();
inline constexpr std::array<uint8_t, kMaxM + 1> kMSymbolOf = [] {
    std::array<uint8_t, kMaxM + 1> table{};
    int s = 0;
    for (uint32_t v = 0; v <= kMaxM; ++v) {
        while (s + 1 < kMSymbols && kMBase[s + 1] <= v) {
            ++s;
        }
        table[v] = static_cast<uint8_t>(s);
    }
    return table;
}();

// D + 4 = 2^(g + 2) + r * 2^g + extra with extra < 2^g, and the symbol is 4g + r.
constexpr int dSymbolOf(uint32_t d) {
    uint32_t t = d + 4;
    int g = std::bit_width(t) - 3;
    return 4 * g + static_cast<int>((t >> g) & 3);
}

}  // namespace corvane::lzfse
