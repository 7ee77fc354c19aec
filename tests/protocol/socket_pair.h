// A GitSocket connected to a raw peer descriptor, for byte-exact protocol tests.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "protocol/git_socket.h"

namespace corvane::testing {

struct SocketPair {
    SocketPair() {
        int fds[2];
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        socket = std::make_unique<GitSocket>(fds[0]);
        peer = fds[1];
    }
    ~SocketPair() {
        ::close(socket->sock());
        if (peer >= 0) ::close(peer);
    }

    void peerWrite(std::string_view data) const {
        while (!data.empty()) {
            auto written = ::write(peer, data.data(), data.size());
            if (written <= 0) return;
            data.remove_prefix(static_cast<std::size_t>(written));
        }
    }
    void closePeer() {
        ::close(peer);
        peer = -1;
    }
    // Ends what the socket sends, so the peer reads to the end.
    void endWrites() const { ::shutdown(socket->sock(), SHUT_WR); }
    // What the socket sent, up to endWrites().
    std::string peerReadAll() const {
        std::string result;
        char buffer[65536];
        ssize_t received;
        while ((received = ::read(peer, buffer, sizeof buffer)) > 0) {
            result.append(buffer, static_cast<std::size_t>(received));
        }
        return result;
    }

    std::unique_ptr<GitSocket> socket;
    int peer = -1;
};

}  // namespace corvane::testing
