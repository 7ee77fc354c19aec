#include "lzfse/fse.h"

#include "lzfse/format.h"

#include <algorithm>
#include <bit>

namespace corvane::lzfse {
namespace {

// k such that f << k lies in [N, 2N).
int stepBits(int stateBits, uint32_t f) {
    return stateBits - (std::bit_width(f) - 1);
}

// Calls emit(state, bits, base) for each of the symbol's states.
template <typename Emit>
void forEachState(int stateBits, uint32_t first, uint32_t f, Emit emit) {
    uint32_t n = 1u << stateBits;
    int k = stepBits(stateBits, f);
    uint32_t j0 = ((2 * n) >> k) - f;
    for (uint32_t j = 0; j < f; ++j) {
        if (j < j0) {
            emit(first + j, k, ((f + j) << k) - n);
        } else {
            emit(first + j, k - 1, (j - j0) << (k - 1));
        }
    }
}

}  // namespace

void buildLiteralDecodeTable(const uint16_t* freq, LiteralDecodeEntry* table) {
    uint32_t first = 0;
    for (int s = 0; s < kLiteralSymbols; ++s) {
        if (freq[s] == 0) continue;
        forEachState(kLiteralStateBits, first, freq[s],
                     [&](uint32_t state, int bits, uint32_t base) {
                         table[state] = {static_cast<uint8_t>(bits), static_cast<uint8_t>(s),
                                         static_cast<uint16_t>(base)};
                     });
        first += freq[s];
    }
}

void buildValueDecodeTable(int stateBits, int symbols, const uint16_t* freq,
                           const uint8_t* extraBits, const uint32_t* valueBase,
                           ValueDecodeEntry* table) {
    uint32_t first = 0;
    for (int s = 0; s < symbols; ++s) {
        if (freq[s] == 0) continue;
        forEachState(stateBits, first, freq[s], [&](uint32_t state, int bits, uint32_t base) {
            table[state] = {static_cast<uint8_t>(bits + extraBits[s]), extraBits[s],
                            static_cast<uint16_t>(base), valueBase[s]};
        });
        first += freq[s];
    }
}

void buildEncodeTable(int stateBits, int symbols, const uint16_t* freq, EncodeEntry* table) {
    int n = 1 << stateBits;
    int first = 0;
    for (int s = 0; s < symbols; ++s) {
        int f = freq[s];
        if (f == 0) {
            table[s] = {};
            continue;
        }
        int k = stepBits(stateBits, static_cast<uint32_t>(f));
        table[s] = {static_cast<uint16_t>((f << k) - n), static_cast<uint8_t>(k),
                    static_cast<int16_t>(first - f + (n >> k)),
                    static_cast<int16_t>(first - f + ((2 * n) >> k))};
        first += f;
    }
}

void normalizeCounts(const uint32_t* counts, int symbols, int stateBits, uint16_t* freq) {
    uint64_t total = 0;
    for (int s = 0; s < symbols; ++s) {
        total += counts[s];
    }
    uint64_t step = total == 0 ? 0 : (uint64_t{1} << 31) / total;
    int shift = 30 - stateBits;

    int remaining = 1 << stateBits;
    int maxF = 0;
    int maxS = 0;
    for (int s = 0; s < symbols; ++s) {
        int f = static_cast<int>((((counts[s] * step) & 0xFFFFFFFF) >> shift) + 1) >> 1;
        if (f == 0 && counts[s] > 0) f = 1;
        freq[s] = static_cast<uint16_t>(f);
        remaining -= f;
        if (f > maxF) {
            maxF = f;
            maxS = s;
        }
    }

    if (-remaining < (maxF >> 2)) {
        freq[maxS] = static_cast<uint16_t>(freq[maxS] + remaining);
        return;
    }
    // Too many states handed out: take them back, first in large bites from large symbols.
    int overrun = -remaining;
    for (int shift2 = 3; shift2 >= 0 && overrun > 0; --shift2) {
        for (int s = 0; s < symbols && overrun > 0; ++s) {
            if (freq[s] <= 1) continue;
            int t = std::min((freq[s] - 1) >> shift2, overrun);
            freq[s] = static_cast<uint16_t>(freq[s] - t);
            overrun -= t;
        }
    }
}

}  // namespace corvane::lzfse
