// A blocking TCP client on 127.0.0.1 for tests that talk to a real server.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvane::testing {

class TcpClient {
  public:
    explicit TcpClient(std::uint16_t port) : TcpClient() { connect(port); }
    // A socket that connects later, when connect() is called.
    TcpClient() : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {}
    void connect(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
        }
    }
    ~TcpClient() { close(); }
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    void send(std::string_view data) {
        while (!data.empty()) {
            ssize_t sent = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
            if (sent <= 0) throw std::runtime_error(std::string("send: ") + std::strerror(errno));
            data.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    void sendPktLine(std::string_view text) {
        char prefix[5];
        std::snprintf(prefix, sizeof prefix, "%04zx", text.size() + 4);
        send(std::string(prefix) + std::string(text));
    }

    // Everything until the server closes; throws on a reset.
    std::string readAll() {
        std::string result;
        char buffer[65536];
        for (;;) {
            ssize_t received = ::recv(fd_, buffer, sizeof buffer, 0);
            if (received < 0)
                throw std::runtime_error(std::string("recv: ") + std::strerror(errno));
            if (received == 0) return result;
            result.append(buffer, static_cast<std::size_t>(received));
        }
    }

    // Exactly `size` bytes, or what came before the server closed.
    std::string read(std::size_t size) {
        std::string result(size, '\0');
        std::size_t done = 0;
        while (done < size) {
            ssize_t received = ::recv(fd_, result.data() + done, size - done, 0);
            if (received < 0)
                throw std::runtime_error(std::string("recv: ") + std::strerror(errno));
            if (received == 0) break;
            done += static_cast<std::size_t>(received);
        }
        result.resize(done);
        return result;
    }

    void shutdownWrite() { ::shutdown(fd_, SHUT_WR); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
};

inline std::string pktLine(std::string_view text) {
    char prefix[5];
    std::snprintf(prefix, sizeof prefix, "%04zx", text.size() + 4);
    return std::string(prefix) + std::string(text);
}

}  // namespace corvane::testing
