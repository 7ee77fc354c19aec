// The LZVN block encoder for small inputs. Stateless entry point; thread-safe.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace corvane::lzfse {

// Appends one bvxn block for `input` (8 bytes up to a few KB) to out and returns true, unless
// the block would not be smaller than a raw block: then out is left as it was and the result
// is false.
bool encodeLzvnBlock(std::span<const uint8_t> input, std::vector<uint8_t>& out);

}  // namespace corvane::lzfse
