// Socket: one TCP descriptor of the git server with a fixed 4096-byte receive buffer. Turns
// partial reads and writes into reads of an exact count and writes of a whole buffer.
// Used by one thread at a time (the accept loop, or the one thread serving a connection).
// Destroying a Socket never closes its descriptor: the server closes it explicitly, once.
#pragma once

#include <sys/types.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/bytes.h"

namespace corvane {

class Socket {
  public:
    static constexpr std::size_t kReceiveBufferSize = 4096;

    explicit Socket(int sock) : sock_(sock) {}
    virtual ~Socket() = default;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int sock() const { return sock_; }

    // SOL_SOCKET option set to 1; true on success.
    bool setOption(int name);
    bool setKeepAlive();
    // Linux has no SO_NOSIGPIPE: every send passes MSG_NOSIGNAL instead, so a write to a peer
    // that has gone fails with EPIPE's text rather than ending the process.
    bool setNoSigPipe() { return true; }
    bool setReuseAddress();
    // Binds to a dotted IPv4 address; false (without calling bind) when the text is not one.
    bool bind(const std::string& address, std::uint16_t port);

    // Accepts one connection; fails with the system's error text.
    int acceptDescriptor();

    // Sends every byte, or fails with the system's error text.
    void sendAll(ByteView data);
    // Sends two buffers as one contiguous write (a packet header and its payload).
    void sendAll(ByteView first, ByteView second);

    // One recv into the free tail of the buffer; only valid when nothing is consumed-but-kept
    // (recvBufOffset is 0). Returns recv's raw result.
    ssize_t receiveMore();
    // Makes at least n (1...4096) unread bytes available; fails with "EOF" when the peer closed
    // and "Timed out waiting for the client" when a receive timeout set on the socket ran out.
    void fillBuffer(std::size_t n);
    void consume(std::size_t n);

    const std::uint8_t* unread() const { return recvBuf_.data() + recvBufOffset_; }
    std::size_t recvBufOffset() const { return recvBufOffset_; }
    std::size_t recvBufSize() const { return recvBufSize_; }

  private:
    const int sock_;
    std::array<std::uint8_t, kReceiveBufferSize> recvBuf_{};
    std::size_t recvBufOffset_ = 0;  // first unread byte
    std::size_t recvBufSize_ = 0;    // unread bytes from recvBufOffset_
};

// The text of the current errno, as the system gives it.
std::string systemErrorText();

}  // namespace corvane
