// LZFSE: whole-buffer encoder and decoder for the LZFSE stream format (raw, LZVN and LZFSE
// blocks). Stateless free functions: safe to call from any number of threads at once.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvane::lzfse {

// Thrown by decode for any input that is not a complete, well-formed stream.
class FormatError : public std::runtime_error {
  public:
    explicit FormatError(const std::string& message) : std::runtime_error(message) {}
};

// Compresses the whole input into one stream ending with the end-of-stream block. Picks a raw
// block for tiny or incompressible inputs, LZVN below 4096 bytes and LZFSE blocks above.
std::vector<uint8_t> encode(std::span<const uint8_t> input);

// Decompresses one stream; bytes after its end-of-stream block are ignored. Throws FormatError
// on malformed, truncated or hostile input; never reads outside the input, and the output grows
// with what the blocks actually produce rather than with the sizes they declare.
std::vector<uint8_t> decode(std::span<const uint8_t> input);

}  // namespace corvane::lzfse
