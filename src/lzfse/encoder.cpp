#include <algorithm>

#include "lzfse/byte_io.h"
#include "lzfse/format.h"
#include "lzfse/lzfse.h"
#include "lzfse/lzfse_encoder.h"
#include "lzfse/lzvn_encoder.h"

namespace corvane::lzfse {
namespace {

// Below this an LZVN block cannot pay for its own 12-byte header.
constexpr size_t kMinCompressible = 8;

void appendU32(std::vector<uint8_t>& out, uint32_t v) {
    size_t at = out.size();
    out.resize(at + 4);
    store32(out.data() + at, v);
}

// Raw blocks (magic, u32 n, n bytes); a 4 GiB field limit means huge inputs take several.
void appendRaw(std::span<const uint8_t> input, std::vector<uint8_t>& out) {
    constexpr size_t kMaxRawBlock = 0xFFFFFFFF;
    size_t at = 0;
    do {
        size_t n = std::min(kMaxRawBlock, input.size() - at);
        appendU32(out, kMagicRaw);
        appendU32(out, static_cast<uint32_t>(n));
        out.insert(out.end(), input.begin() + static_cast<ptrdiff_t>(at),
                   input.begin() + static_cast<ptrdiff_t>(at + n));
        at += n;
    } while (at < input.size());
}

}  // namespace

std::vector<uint8_t> encode(std::span<const uint8_t> input) {
    std::vector<uint8_t> out;
    size_t n = input.size();
    if (n >= kLzvnThreshold) {
        out.reserve(n / 2 + 4096);
        encodeLzfseBlocks(input, out);
        // Incompressible data: a raw copy is smaller than the expanded LZFSE blocks.
        if (out.size() + 4 >= n + 12) {
            out.clear();
            appendRaw(input, out);
        }
    } else if (n < kMinCompressible || !encodeLzvnBlock(input, out)) {
        appendRaw(input, out);
    }
    appendU32(out, kMagicEnd);
    return out;
}

}  // namespace corvane::lzfse
