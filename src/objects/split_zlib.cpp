#include "objects/split_zlib.h"

#include <zlib.h>

#include <algorithm>
#include <string>

#include "base/error.h"
#include "objects/zlib.h"

namespace corvane {

namespace {

// zlib header: deflate, 32 KiB window, no preset dictionary, fastest level.
constexpr std::uint8_t kZlibHeader[] = {0x78, 0x01};
// A stored block's first byte (not final, type 00, padding) before its length and complement.
constexpr std::size_t kStoredBlockHeader = 5;
// A full flush ends with an empty stored block: byte-aligned "00 00 ff ff".
constexpr std::uint8_t kFlushMarker[] = {0x00, 0x00, 0xff, 0xff};
// An earlier release's compressed head (type name, size, NUL) fits well within this.
constexpr std::size_t kMaxHeadStream = 96;
// Deflate cannot expand data by more than this factor, which bounds a declared length.
constexpr std::size_t kMaxInflateRatio = 1032;

void appendBigEndian(Bytes& bytes, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

std::uint32_t readBigEndian(ByteView bytes) {
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
           (std::uint32_t{bytes[2]} << 8) | bytes[3];
}

// A head written as one stored block: its bytes are the block's contents.
std::optional<std::size_t> storedHeadLength(ByteView blocks) {
    if (blocks.size() < kStoredBlockHeader || blocks[0] != 0x00) return std::nullopt;
    unsigned length = blocks[1] | (unsigned{blocks[2]} << 8);
    unsigned complement = blocks[3] | (unsigned{blocks[4]} << 8);
    if ((length ^ 0xffffu) != complement || kStoredBlockHeader + length > blocks.size())
        return std::nullopt;
    return length;
}

// An earlier release's head: raw deflate blocks ending in a full flush, byte-aligned, none final.
std::optional<Bytes> inflateFlushedHead(ByteView input) {
    z_stream stream{};
    if (inflateInit2(&stream, -15) != Z_OK) return std::nullopt;
    Bytes output(256);
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = output.data();
    stream.avail_out = static_cast<uInt>(output.size());
    bool sound = true;
    while (sound && stream.avail_in > 0) {
        int status = inflate(&stream, Z_BLOCK);
        sound = status == Z_OK && stream.avail_out != 0;
    }
    bool atBlockEnd = (stream.data_type & 128) != 0;
    bool lastBlock = (stream.data_type & 64) != 0;
    bool bitsLeft = (stream.data_type & 7) != 0;
    output.resize(stream.total_out);
    inflateEnd(&stream);
    if (!sound || !atBlockEnd || lastBlock || bitsLeft) return std::nullopt;
    return output;
}

struct Head {
    Bytes bytes;
    std::size_t bodyStart;  // offset of the body's blocks in the stream
};

std::optional<Head> findHead(ByteView stream, std::size_t trailer) {
    auto blocks = stream.subspan(2, trailer - 2);
    if (auto length = storedHeadLength(blocks)) {
        auto head = blocks.subspan(kStoredBlockHeader, *length);
        return Head{{head.begin(), head.end()}, 2 + kStoredBlockHeader + *length};
    }
    const std::size_t searchEnd = std::min(trailer, 2 + kMaxHeadStream);
    for (std::size_t at = 2; at + sizeof kFlushMarker <= searchEnd; ++at) {
        if (!std::equal(std::begin(kFlushMarker), std::end(kFlushMarker), stream.begin() + at))
            continue;
        const std::size_t split = at + sizeof kFlushMarker;
        // The marker's bytes may also occur inside the head's own block.
        if (auto head = inflateFlushedHead(stream.subspan(2, split - 2)))
            return Head{std::move(*head), split};
    }
    return std::nullopt;
}

}  // namespace

Bytes zlibDeflateSplit(ByteView head, ByteView body) {
    if (head.size() > 0xffff) throw Error("Deflate error: head too large");
    Bytes output(kZlibHeader, kZlibHeader + sizeof kZlibHeader);
    output.push_back(0x00);
    const auto length = static_cast<unsigned>(head.size());
    for (unsigned value : {length, 0xffffu ^ length}) {
        output.push_back(static_cast<std::uint8_t>(value));
        output.push_back(static_cast<std::uint8_t>(value >> 8));
    }
    output.insert(output.end(), head.begin(), head.end());
    appendRawDeflate(output, body);
    appendBigEndian(output, adler32Of(body, adler32Of(head)));
    return output;
}

std::optional<SplitStream> zlibInflateSplit(ByteView stream, const SplitBodySize& bodySize) {
    // zlib header (2 bytes), blocks, Adler-32 (4 bytes).
    if (stream.size() < 2 + kStoredBlockHeader + 4) return std::nullopt;
    bool zlibHeader = (stream[0] & 0x0f) == Z_DEFLATED && (stream[1] & 0x20) == 0 &&
                      ((stream[0] << 8) | stream[1]) % 31 == 0;
    if (!zlibHeader) return std::nullopt;
    const std::size_t trailer = stream.size() - 4;
    auto head = findHead(stream, trailer);
    if (!head) return std::nullopt;
    auto size = bodySize(head->bytes);
    auto bodyBlocks = stream.subspan(head->bodyStart, trailer - head->bodyStart);
    if (!size || *size / kMaxInflateRatio > bodyBlocks.size()) return std::nullopt;
    auto body = rawInflateExactly(bodyBlocks, *size);
    if (!body) return std::nullopt;
    std::uint32_t bodyAdler = adler32Of(*body);
    if (adler32Combine(adler32Of(head->bytes), bodyAdler, body->size()) !=
        readBigEndian(stream.subspan(trailer))) {
        return std::nullopt;
    }
    SplitStream result{std::move(head->bytes), std::move(*body), {}};
    result.bodyStream.reserve(2 + bodyBlocks.size() + 4);
    result.bodyStream.assign(kZlibHeader, kZlibHeader + sizeof kZlibHeader);
    result.bodyStream.insert(result.bodyStream.end(), bodyBlocks.begin(), bodyBlocks.end());
    appendBigEndian(result.bodyStream, bodyAdler);
    return result;
}

}  // namespace corvane
