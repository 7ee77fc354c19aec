// Feeds arbitrary bytes to the LZFSE decoder (which may only throw FormatError) and checks that
// encoding the same bytes decodes back to them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "lzfse/lzfse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::span<const uint8_t> input(data, size);
    try {
        corvane::lzfse::decode(input);
    } catch (const corvane::lzfse::FormatError&) {
    }
    std::vector<uint8_t> encoded = corvane::lzfse::encode(input);
    std::vector<uint8_t> decoded = corvane::lzfse::decode(encoded);
    if (decoded.size() != size || !std::equal(decoded.begin(), decoded.end(), data)) std::abort();
    return 0;
}
