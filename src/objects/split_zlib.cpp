#include "objects/split_zlib.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <string>

#include "base/error.h"

namespace corvane {

namespace {

// A full flush ends with an empty stored block: byte-aligned "00 00 ff ff".
constexpr std::uint8_t kFlushMarker[] = {0x00, 0x00, 0xff, 0xff};
// The compressed head of a loose object (type name, size, NUL) fits well within this.
constexpr std::size_t kMaxHeadStream = 96;
constexpr int kRawWindowBits = -15;

struct RawInflater {
    z_stream stream{};
    bool ready = false;
    RawInflater() { ready = inflateInit2(&stream, kRawWindowBits) == Z_OK; }
    ~RawInflater() {
        if (ready) inflateEnd(&stream);
    }
    RawInflater(const RawInflater&) = delete;
    RawInflater& operator=(const RawInflater&) = delete;
};

bool fitsZlib(std::size_t length) {
    return length <= std::numeric_limits<uInt>::max();
}

// The head: raw deflate blocks that end exactly at a block boundary, byte-aligned, none final.
std::optional<Bytes> inflateHead(ByteView input) {
    RawInflater inflater;
    if (!inflater.ready) return std::nullopt;
    z_stream& stream = inflater.stream;
    Bytes output(256);
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = output.data();
    stream.avail_out = static_cast<uInt>(output.size());
    while (stream.avail_in > 0) {
        int status = inflate(&stream, Z_BLOCK);
        if (status != Z_OK || stream.avail_out == 0) return std::nullopt;
    }
    bool atBlockEnd = (stream.data_type & 128) != 0;
    bool lastBlock = (stream.data_type & 64) != 0;
    bool bitsLeft = (stream.data_type & 7) != 0;
    if (!atBlockEnd || lastBlock || bitsLeft) return std::nullopt;
    output.resize(stream.total_out);
    return output;
}

// The body: raw deflate blocks ending with the final block exactly at the end of the input.
std::optional<Bytes> inflateBody(ByteView input) {
    RawInflater inflater;
    if (!inflater.ready) return std::nullopt;
    z_stream& stream = inflater.stream;
    Bytes output(std::max<std::size_t>(256, input.size() * 4));
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    for (;;) {
        std::size_t produced = stream.total_out;
        if (produced == output.size()) output.resize(output.size() * 2);
        std::size_t room =
            std::min<std::size_t>(output.size() - produced, std::numeric_limits<uInt>::max());
        stream.next_out = output.data() + produced;
        stream.avail_out = static_cast<uInt>(room);
        int status = inflate(&stream, Z_NO_FLUSH);
        if (status == Z_STREAM_END) break;
        if (status != Z_OK) return std::nullopt;
    }
    if (stream.avail_in != 0) return std::nullopt;
    output.resize(stream.total_out);
    return output;
}

void appendBigEndian(Bytes& bytes, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

}  // namespace

Bytes zlibDeflateSplit(ByteView head, ByteView body) {
    if (!fitsZlib(head.size() + body.size())) throw Error("Deflate error: input too large");
    z_stream stream{};
    // The fastest level, as git itself writes loose objects: every pushed object is compressed
    // once here, and at the default level that was most of a large push's time.
    if (deflateInit(&stream, Z_BEST_SPEED) != Z_OK) throw Error("Deflate error: init");
    // The bound assumes no flush; the flush adds an empty stored block and some bits.
    Bytes output(deflateBound(&stream, static_cast<uLong>(head.size() + body.size())) + 16);
    stream.next_out = output.data();
    stream.avail_out = static_cast<uInt>(output.size());
    auto run = [&](ByteView input, int flush, int expected) {
        stream.next_in = const_cast<Bytef*>(input.data());
        stream.avail_in = static_cast<uInt>(input.size());
        int status = deflate(&stream, flush);
        if (status != expected || stream.avail_in != 0) {
            std::string message = stream.msg ? stream.msg : "output too small";
            deflateEnd(&stream);
            throw Error("Deflate error: " + message);
        }
    };
    run(head, Z_FULL_FLUSH, Z_OK);
    run(body, Z_FINISH, Z_STREAM_END);
    output.resize(stream.total_out);
    deflateEnd(&stream);
    return output;
}

std::optional<SplitStream> zlibInflateSplit(ByteView stream) {
    // zlib header (2 bytes: deflate, no preset dictionary) ... Adler-32 (4 bytes).
    if (stream.size() < 2 + sizeof kFlushMarker + 4 || !fitsZlib(stream.size())) {
        return std::nullopt;
    }
    bool zlibHeader = (stream[0] & 0x0f) == Z_DEFLATED && (stream[1] & 0x20) == 0 &&
                      ((stream[0] << 8) | stream[1]) % 31 == 0;
    if (!zlibHeader) return std::nullopt;
    const std::size_t trailer = stream.size() - 4;
    const std::size_t searchEnd = std::min(trailer, 2 + kMaxHeadStream);
    for (std::size_t at = 2; at + sizeof kFlushMarker <= searchEnd; ++at) {
        if (!std::equal(std::begin(kFlushMarker), std::end(kFlushMarker), stream.begin() + at)) {
            continue;
        }
        const std::size_t split = at + sizeof kFlushMarker;
        auto head = inflateHead(stream.subspan(2, split - 2));
        if (!head) continue;  // the marker's bytes inside the head's own block
        auto bodyBlocks = stream.subspan(split, trailer - split);
        auto body = inflateBody(bodyBlocks);
        if (!body) return std::nullopt;
        SplitStream result{std::move(*head), std::move(*body), {}};
        result.bodyStream.reserve(2 + bodyBlocks.size() + 4);
        result.bodyStream.push_back(0x78);
        result.bodyStream.push_back(0x9c);
        result.bodyStream.insert(result.bodyStream.end(), bodyBlocks.begin(), bodyBlocks.end());
        appendBigEndian(result.bodyStream,
                        static_cast<std::uint32_t>(adler32_z(
                            adler32_z(0, nullptr, 0), result.body.data(), result.body.size())));
        return result;
    }
    return std::nullopt;
}

}  // namespace corvane
