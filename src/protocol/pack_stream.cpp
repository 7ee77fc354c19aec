// The pushed pack stream, read object by object straight from the receive buffer.
//
// Layout: "PACK" | version (4 bytes, big-endian, must be 2) | object count (4 bytes, big-endian)
// | entries | 20-byte SHA-1 trailer. An entry is a header (first byte: bit 7 continuation,
// bits 4-6 type code, bits 0-3 size bits 0-3; each continuation byte adds 7 more size bits),
// then for a ref-delta the 20-byte base id, then the zlib stream of the data.
#include <algorithm>
#include <cstring>

#include "base/error.h"
#include "base/trace.h"
#include "protocol/git_socket.h"

namespace corvane {

namespace {

std::uint32_t readBigEndian32(const std::uint8_t* bytes) {
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
           (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
}

// zlib counts output in 32 bits; larger objects are refused before anything is allocated.
constexpr std::uint64_t kMaxObjectSize = 0xffffffffu;
// Up-front reservation for an object: beyond it the buffer grows only as data really inflates,
// so a header that lies about the size cannot make us allocate gigabytes.
constexpr std::size_t kInitialReservation = 1 << 20;

}  // namespace

std::uint32_t GitSocket::readPackHeader() {
    fillBuffer(4);
    if (std::memcmp(unread(), packSignature.data(), 4) != 0) throw Error("Invalid pack signature");
    consume(4);
    fillBuffer(4);
    std::uint32_t version = readBigEndian32(unread());
    if (version != 2) throw Error("Invalid pack version: " + std::to_string(version));
    consume(4);
    fillBuffer(4);
    std::uint32_t count = readBigEndian32(unread());
    consume(4);
    trace(TraceModule::gitRequest, "pack: " + std::to_string(count) + " objects");
    return count;
}

std::pair<ObjectType, std::uint64_t> GitSocket::readObjectHeader() {
    fillBuffer(1);
    std::uint8_t byte = *unread();
    consume(1);
    auto type = objectTypeFromRaw((byte >> 4) & 0x07);
    if (!type) throw Error("Invalid pack object header");
    std::uint64_t size = byte & 0x0f;
    unsigned shift = 4;
    while (byte & 0x80) {
        fillBuffer(1);
        byte = *unread();
        consume(1);
        size += std::uint64_t{byte & 0x7fu} << shift;
        shift += 7;
        if (shift > 63) throw Error("Invalid pack object header");
    }
    return {*type, size};
}

Bytes GitSocket::inflateObject(std::uint64_t size, Bytes* stream) {
    if (size > kMaxObjectSize) {
        throw Error("Pack object too large: " + std::to_string(size) + " bytes");
    }
    if (inflateReset(&zStream_) != Z_OK) throw Error("Inflate error: inflateReset");
    Bytes output(std::min<std::uint64_t>(size, kInitialReservation));
    std::size_t produced = 0;
    std::uint8_t emptyOutput = 0;  // zlib refuses a null output pointer, even for 0 bytes
    for (;;) {
        if (recvBufSize() == 0) fillBuffer(1);
        if (produced == output.size() && output.size() < size) {
            output.resize(std::min<std::uint64_t>(size, output.size() * 2));
        }
        zStream_.next_in = const_cast<std::uint8_t*>(unread());
        zStream_.avail_in = static_cast<uInt>(recvBufSize());
        zStream_.next_out = output.empty() ? &emptyOutput : output.data() + produced;
        zStream_.avail_out = static_cast<uInt>(output.size() - produced);
        int status = inflate(&zStream_, Z_NO_FLUSH);
        // With input available, a buffer error means the data runs past the declared size.
        if (status == Z_BUF_ERROR) throw Error("Inflate error: object larger than its header");
        if (status != Z_OK && status != Z_STREAM_END) {
            throw Error(std::string("Inflate error: ") + (zStream_.msg ? zStream_.msg : ""));
        }
        std::size_t used = recvBufSize() - zStream_.avail_in;
        if (stream) stream->insert(stream->end(), unread(), unread() + used);
        consume(used);
        produced = output.size() - zStream_.avail_out;
        if (status == Z_STREAM_END) break;
    }
    if (produced != size) throw Error("Inflate error: truncated output");
    return output;
}

Bytes GitSocket::readRawBytes(std::size_t n) {
    fillBuffer(n);
    Bytes bytes(unread(), unread() + n);
    consume(n);
    return bytes;
}

}  // namespace corvane
