// Decoding of one LZVN block's opcode stream into the stream's output. Thread-safe as long as
// each call has its own output.
#pragma once

#include <cstdint>
#include <span>

#include "lzfse/decode_output.h"

namespace corvane::lzfse {

// Runs the opcodes of `payload`, which must produce exactly nRawBytes bytes and end with the
// end opcode as its last 8 bytes. Matches may reach into earlier blocks' output. Throws
// FormatError on any violation.
void decodeLzvnBlock(std::span<const uint8_t> payload, uint32_t nRawBytes, DecodeOutput& out);

}  // namespace corvane::lzfse
