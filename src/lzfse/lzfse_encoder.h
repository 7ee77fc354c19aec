// The LZFSE block encoder: a hash-table match finder whose parse is cut into bvx2 blocks.
// Stateless entry point; thread-safe.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace corvane::lzfse {

// Appends bvx2 blocks encoding `input` (any size) to out; the caller adds the end marker.
void encodeLzfseBlocks(std::span<const uint8_t> input, std::vector<uint8_t>& out);

}  // namespace corvane::lzfse
