// Decoding of one LZFSE (bvx1/bvx2) block into the stream's output. Thread-safe as long as each
// call has its own scratch and output.
#pragma once

#include <array>
#include <cstdint>

#include "lzfse/block_header.h"
#include "lzfse/decode_output.h"
#include "lzfse/fse.h"

namespace corvane::lzfse {

// Per-call working memory, reused across blocks (about 47 KB; allocate it on the heap).
struct LzfseScratch {
    std::array<uint8_t, kMaxLiterals + kCopySlack> literals;
    std::array<LiteralDecodeEntry, kLiteralStates> literalTable;
    std::array<ValueDecodeEntry, kLStates> lTable;
    std::array<ValueDecodeEntry, kMStates> mTable;
    std::array<ValueDecodeEntry, kDStates> dTable;
};

// Decodes the block whose header was parsed by parseBlockHeader; `payloads` points at the
// literal payload, followed by the LMD payload. Throws FormatError on any violation.
void decodeLzfseBlock(const BlockHeader& header, const uint8_t* payloads, LzfseScratch& scratch,
                      DecodeOutput& out);

}  // namespace corvane::lzfse
