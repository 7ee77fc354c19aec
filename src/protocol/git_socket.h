// GitSocket: the Socket of one git client connection with the wire protocol's framing: pkt-lines,
// the flush packet, side-band channels (1 data, 2 progress, 3 error) and the client's
// capabilities. It also carries the pack stream state of the connection: the inflater for a
// pushed pack and the running SHA-1 and side-band buffer of a pack being written.
// Owned and used by the one thread serving the connection; nothing is locked.
#pragma once

#include <zlib.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/bytes.h"
#include "objects/object_type.h"
#include "objects/sha1.h"
#include "protocol/capability.h"
#include "protocol/socket.h"

namespace corvane {

// A flush packet ("0000") reads as, and is written from, the empty text.
inline constexpr std::string_view kFlush = "";
// The all-zero id: no object, in push commands.
inline const std::string zeroId(40, '0');
inline constexpr std::string_view packSignature = "PACK";

class GitSocket : public Socket {
  public:
    // Band numbers of side-band packets.
    static constexpr char kBandData = 1;
    static constexpr char kBandProgress = 2;
    static constexpr char kBandError = 3;
    // Longest payload of a pkt-line we read: the receive buffer's size.
    static constexpr std::size_t kMaxReadPayload = kReceiveBufferSize;
    // Longest text we write in one pkt-line (the whole line is then 65520 bytes).
    static constexpr std::size_t kMaxWritePayload = 65516;

    // Fails with "Inflate error: init".
    explicit GitSocket(int sock);
    ~GitSocket() override;

    // Fails with the system's error text.
    std::unique_ptr<GitSocket> accept();

    // The payload without surrounding newlines; the flush marker for "0000".
    std::string readPktLine();
    void writePktLine(std::string_view text);
    static void appendPktLine(std::string_view text, Bytes& buffer);

    // Band-2 text, sent only with a side-band and without "quiet".
    void writeProgress(std::string_view text);
    // Band-3 text; callers send it only when a side-band was requested.
    void writeError(std::string_view text);

    const Capabilities& capabilities() const { return capabilities_; }
    bool hasCapability(Capability capability) const { return capabilities_.contains(capability); }
    bool hasSideBand() const;
    // Stores the client's requested set and derives the side-band limit from it.
    void setCapabilities(Capabilities capabilities);
    std::optional<std::size_t> sideBandLimit() const { return sideBandLimit_; }

    // Pack data: hashed, then sent unframed or collected into full side-band packets.
    void writeSideBandData(ByteView data);
    // Sends one band-1 packet of at most `limit` bytes from the front of packBuffer.
    void sendSideBandChunk(std::size_t limit);
    // Sends whatever packBuffer still holds as band-1 packets.
    void drainPackBuffer();
    const Bytes& packBuffer() const { return packBuffer_; }
    SHA1Context& packHash() { return packHash_; }

    // The pushed pack stream, read straight from the receive buffer.
    // "PACK", version 2 (big-endian), object count (big-endian): returns the count.
    std::uint32_t readPackHeader();
    // Type and inflated size of the next entry.
    std::pair<ObjectType, std::uint64_t> readObjectHeader();
    // Inflates exactly `size` bytes of the current entry's zlib stream; `stream`, when given,
    // receives the stream's bytes as they came, to be kept as they are.
    Bytes inflateObject(std::uint64_t size, Bytes* stream = nullptr);
    // n (at most 4096) raw bytes: a ref-delta's base id, the pack trailer.
    Bytes readRawBytes(std::size_t n);

  private:
    void setSideBandLimit();
    // One band-1 packet: length, band byte and payload in one write.
    void sendBandPacket(ByteView payload);

    Capabilities capabilities_;
    std::optional<std::size_t> sideBandLimit_;
    z_stream zStream_{};
    Bytes packBuffer_;
    SHA1Context packHash_;
};

}  // namespace corvane
