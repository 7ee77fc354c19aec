#include "protocol/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "base/error.h"

namespace corvane {

std::string systemErrorText() {
    return std::strerror(errno);
}

bool Socket::setOption(int name) {
    int value = 1;
    return setsockopt(sock_, SOL_SOCKET, name, &value, sizeof value) == 0;
}

bool Socket::setKeepAlive() {
    return setOption(SO_KEEPALIVE);
}

bool Socket::setReuseAddress() {
    return setOption(SO_REUSEADDR);
}

bool Socket::bind(const std::string& address, std::uint16_t port) {
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &socketAddress.sin_addr) != 1) return false;
    return ::bind(sock_, reinterpret_cast<const sockaddr*>(&socketAddress), sizeof socketAddress) ==
           0;
}

int Socket::acceptDescriptor() {
    int descriptor = ::accept4(sock_, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) throw Error(systemErrorText());
    return descriptor;
}

void Socket::sendAll(ByteView data) {
    sendAll(data, {});
}

void Socket::sendAll(ByteView first, ByteView second) {
    std::size_t sent = 0;
    const std::size_t total = first.size() + second.size();
    while (sent < total) {
        iovec parts[2];
        int count = 0;
        if (sent < first.size()) {
            parts[count++] = {const_cast<std::uint8_t*>(first.data()) + sent, first.size() - sent};
        }
        std::size_t secondSent = sent > first.size() ? sent - first.size() : 0;
        if (second.size() > secondSent) {
            parts[count++] = {const_cast<std::uint8_t*>(second.data()) + secondSent,
                              second.size() - secondSent};
        }
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = static_cast<std::size_t>(count);
        ssize_t result = ::sendmsg(sock_, &message, MSG_NOSIGNAL);
        if (result < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                throw Error("Timed out sending to the client");
            throw Error(systemErrorText());
        }
        sent += static_cast<std::size_t>(result);
    }
}

ssize_t Socket::receiveMore() {
    return ::recv(sock_, recvBuf_.data() + recvBufSize_, kReceiveBufferSize - recvBufSize_, 0);
}

void Socket::fillBuffer(std::size_t n) {
    if (recvBufSize_ >= n) return;
    if (recvBufOffset_ > 0) {
        std::memmove(recvBuf_.data(), recvBuf_.data() + recvBufOffset_, recvBufSize_);
        recvBufOffset_ = 0;
    }
    for (;;) {
        ssize_t received = receiveMore();
        if (received == 0) throw Error("EOF");
        if (received < 0) {
            if (errno == EINTR) continue;
            // A receive timeout set on the socket ran out.
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                throw Error("Timed out waiting for the client");
            throw Error(systemErrorText());
        }
        recvBufSize_ += static_cast<std::size_t>(received);
        if (recvBufSize_ >= n) return;
    }
}

void Socket::consume(std::size_t n) {
    recvBufOffset_ += n;
    recvBufSize_ -= n;
}

}  // namespace corvane
