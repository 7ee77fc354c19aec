#include "objects/lzfse_compression.h"

#include <exception>

#include "base/error.h"
#include "lzfse/lzfse.h"

namespace corvane {

Bytes lzfseCompress(ByteView input) {
    if (input.empty()) return {};
    try {
        return lzfse::encode(input);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        throw Error("Compression error");
    }
}

Bytes lzfseDecompress(ByteView input) {
    if (input.empty()) return {};
    try {
        return lzfse::decode(input);
    } catch (const lzfse::FormatError&) {
        throw Error("Decompression error");
    }
}

}  // namespace corvane
