// Finite-state entropy coding as LZFSE uses it: each symbol owns one contiguous run of states,
// in symbol order. Builds decoder and encoder tables and normalises counts to frequencies.
// Tables are plain values; building and using them is thread-safe per instance.
#pragma once

#include <cstdint>

#include "lzfse/bit_stream.h"

namespace corvane::lzfse {

// Literal decoder: a state yields a byte and how to find the next state.
struct LiteralDecodeEntry {
    uint8_t bits;  // bits to read for the next state
    uint8_t symbol;
    uint16_t base;  // next state = base + bits read
};

// L/M/D decoder: the next-state bits and the value's extra bits are read as one field, state
// bits on top.
struct ValueDecodeEntry {
    uint8_t totalBits;
    uint8_t extraBits;
    uint16_t base;
    uint32_t valueBase;
};

struct EncodeEntry {
    uint16_t threshold;  // states below it write one bit less
    uint8_t bits;
    int16_t delta;     // new state = delta + (state >> bits) when state >= threshold
    int16_t deltaLow;  // same when state < threshold, shifting by bits - 1
};

// Frequencies must sum to exactly 2^stateBits (callers validate untrusted tables first).
void buildLiteralDecodeTable(const uint16_t* freq, LiteralDecodeEntry* table);
void buildValueDecodeTable(int stateBits, int symbols, const uint16_t* freq,
                           const uint8_t* extraBits, const uint32_t* valueBase,
                           ValueDecodeEntry* table);
void buildEncodeTable(int stateBits, int symbols, const uint16_t* freq, EncodeEntry* table);

// Scales counts to frequencies summing to 2^stateBits, every counted symbol getting at least 1;
// the rounding matches the reference encoder so our tables compress the same.
void normalizeCounts(const uint32_t* counts, int symbols, int stateBits, uint16_t* freq);

// One encoding step: writes the state's low bits and moves to the symbol's previous state.
inline void fseEncode(uint32_t& state, const EncodeEntry& e, ForwardBitWriter& out) {
    bool low = state < e.threshold;
    int bits = e.bits - (low ? 1 : 0);
    int delta = low ? e.deltaLow : e.delta;
    out.write(state & ((1u << bits) - 1), bits);
    state = static_cast<uint32_t>(delta + static_cast<int>(state >> bits));
}

}  // namespace corvane::lzfse
