#include <memory>
#include <string>

#include "lzfse/block_header.h"
#include "lzfse/byte_io.h"
#include "lzfse/decode_output.h"
#include "lzfse/format.h"
#include "lzfse/lzfse.h"
#include "lzfse/lzfse_block_decoder.h"
#include "lzfse/lzvn_decoder.h"

namespace corvane::lzfse {
namespace {

[[noreturn]] void fail(const char* what) {
    throw FormatError(std::string("lzfse: ") + what);
}

// Sum of the sizes the blocks declare, read from their headers only; stops quietly at anything
// odd (the real decode reports it). Used just to size the output up front.
uint64_t declaredSize(std::span<const uint8_t> input) {
    uint64_t total = 0;
    size_t at = 0;
    while (input.size() - at >= 12) {
        const uint8_t* p = input.data() + at;
        uint64_t blockBytes;
        switch (load32(p)) {
            case kMagicRaw:
                blockBytes = 8 + uint64_t{load32(p + 4)};
                break;
            case kMagicLzvn:
                blockBytes = 12 + uint64_t{load32(p + 8)};
                break;
            case kMagicV1:
                if (input.size() - at < kV1HeaderSize) return total;
                blockBytes = kV1HeaderSize + uint64_t{load32(p + 20)} + load32(p + 24);
                break;
            case kMagicV2:
                if (input.size() - at < kV2FixedHeaderSize) return total;
                if ((load64(p + 24) & 0xFFFFFFFF) < kV2FixedHeaderSize) return total;
                blockBytes = (load64(p + 24) & 0xFFFFFFFF) + ((load64(p + 8) >> 20) & 0xFFFFF) +
                             ((load64(p + 16) >> 40) & 0xFFFFF);
                break;
            default:
                return total;
        }
        if (blockBytes > input.size() - at) return total;
        total += load32(p + 4);
        at += blockBytes;
    }
    return total;
}

// Trust declared sizes only up to a small multiple of the input; beyond that the output grows
// as bytes are really produced.
size_t initialCapacity(std::span<const uint8_t> input) {
    uint64_t limit = 8 * uint64_t{input.size()} + 65536;
    uint64_t declared = declaredSize(input);
    return static_cast<size_t>(declared < limit ? declared : limit);
}

}  // namespace

std::vector<uint8_t> decode(std::span<const uint8_t> input) {
    DecodeOutput out(initialCapacity(input));
    std::unique_ptr<LzfseScratch> scratch;
    size_t at = 0;
    while (true) {
        std::span<const uint8_t> rest = input.subspan(at);
        if (rest.size() < 4) fail("stream ends without end-of-stream block");
        const uint8_t* p = rest.data();
        switch (load32(p)) {
            case kMagicEnd:
                return out.take();
            case kMagicRaw: {
                // Layout: magic, u32 n, n bytes.
                if (rest.size() < 8) fail("truncated raw block");
                uint32_t n = load32(p + 4);
                if (n > rest.size() - 8) fail("truncated raw block");
                out.append(p + 8, n);
                at += 8 + size_t{n};
                break;
            }
            case kMagicLzvn: {
                // Layout: magic, u32 n_raw_bytes, u32 n_payload_bytes, payload.
                if (rest.size() < 12) fail("truncated LZVN block");
                uint32_t nRaw = load32(p + 4);
                uint32_t nPayload = load32(p + 8);
                if (nPayload > rest.size() - 12) fail("truncated LZVN block");
                decodeLzvnBlock(rest.subspan(12, nPayload), nRaw, out);
                at += 12 + size_t{nPayload};
                break;
            }
            case kMagicV1:
            case kMagicV2: {
                BlockHeader header = parseBlockHeader(rest);
                if (!scratch) scratch = std::make_unique_for_overwrite<LzfseScratch>();
                decodeLzfseBlock(header, p + header.headerSize, *scratch, out);
                at += header.headerSize + size_t{header.nLiteralPayloadBytes} +
                      header.nLmdPayloadBytes;
                break;
            }
            default:
                fail("unknown block magic");
        }
    }
}

}  // namespace corvane::lzfse
