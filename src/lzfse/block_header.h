// Headers of LZFSE blocks: parsing both forms (bvx1 plain, bvx2 packed) into one value, and
// writing the packed form. Pure functions; thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "lzfse/format.h"

namespace corvane::lzfse {

struct BlockHeader {
    uint32_t nRawBytes = 0;
    uint32_t nLiterals = 0;  // includes up to 3 zero padding literals
    uint32_t nMatches = 0;
    uint32_t nLiteralPayloadBytes = 0;
    uint32_t nLmdPayloadBytes = 0;
    int literalBits = 0;  // minus the zero padding bits of the payload's last byte
    int lmdBits = 0;
    std::array<uint16_t, 4> literalState{};
    uint16_t lState = 0;
    uint16_t mState = 0;
    uint16_t dState = 0;
    std::array<uint16_t, kLSymbols> lFreq{};
    std::array<uint16_t, kMSymbols> mFreq{};
    std::array<uint16_t, kDSymbols> dFreq{};
    std::array<uint16_t, kLiteralSymbols> literalFreq{};
    size_t headerSize = 0;  // bytes from the magic to the literal payload
};

// Parses the header of the bvx1/bvx2 block that starts `block` (magic included; the span may
// run on past the block). Checks field ranges, frequency sums (at most the table size) and that
// both payloads lie inside `block`. Throws FormatError otherwise.
BlockHeader parseBlockHeader(std::span<const uint8_t> block);

// Size of the bvx2 header for these frequency tables.
size_t packedHeaderSize(const BlockHeader& header);

// Writes the bvx2 header (packedHeaderSize bytes; header.headerSize must equal it) to out.
void writePackedHeader(const BlockHeader& header, uint8_t* out);

}  // namespace corvane::lzfse
