#include "protocol/peer_user.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "base/error.h"

namespace corvane {

namespace {

// Both ends of the connection as the kernel's tables name them: addresses as 16 bytes (IPv4
// mapped into IPv6 when the socket is IPv4), ports in host order.
struct Ends {
    bool ipv4 = true;
    std::array<std::uint8_t, 16> peerAddress{};
    std::array<std::uint8_t, 16> localAddress{};
    std::uint16_t peerPort = 0;
    std::uint16_t localPort = 0;
};

void readAddress(const sockaddr_storage& address, bool& ipv4, std::array<std::uint8_t, 16>& bytes,
                 std::uint16_t& port) {
    if (address.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(address);
        std::memcpy(bytes.data(), &in.sin_addr, 4);
        port = ntohs(in.sin_port);
        ipv4 = true;
    } else if (address.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
        std::memcpy(bytes.data(), &in6.sin6_addr, 16);
        port = ntohs(in6.sin6_port);
        ipv4 = false;
    } else {
        throw Error("not a TCP connection");
    }
}

Ends endsOf(int descriptor) {
    sockaddr_storage peer{}, local{};
    socklen_t peerLength = sizeof peer, localLength = sizeof local;
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &localLength) != 0)
        throw Error(std::string("the connection's addresses are unknown: ") + std::strerror(errno));
    Ends ends;
    bool localIpv4 = true;
    readAddress(peer, ends.ipv4, ends.peerAddress, ends.peerPort);
    readAddress(local, localIpv4, ends.localAddress, ends.localPort);
    return ends;
}

// Only a connected socket vouches for its owner. One its owner has closed lingers in the tables
// (FIN-WAIT, TIME-WAIT) without a process, and the kernel reports it as user 0's: a daemon run
// as root would take a client that sent its request and closed at once for itself.
constexpr std::uint8_t kEstablished = TCP_ESTABLISHED;

// The client's socket seen from its own side: source = the peer, destination = us.
std::optional<uid_t> askSockDiag(int netlink, const Ends& ends, int family) {
    if (netlink < 0) return std::nullopt;
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.request.sdiag_family = static_cast<std::uint8_t>(family);
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = 1u << kEstablished;
    auto& id = message.request.id;
    id.idiag_sport = htons(ends.peerPort);
    id.idiag_dport = htons(ends.localPort);
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    auto place = [&](const std::array<std::uint8_t, 16>& address, __be32* into) {
        if (family == AF_INET) {
            std::memcpy(into, address.data(), 4);
        } else if (ends.ipv4) {  // an IPv4 peer as an IPv6 socket sees it
            std::uint8_t mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
            std::memcpy(mapped + 12, address.data(), 4);
            std::memcpy(into, mapped, 16);
        } else {
            std::memcpy(into, address.data(), 16);
        }
    };
    place(ends.peerAddress, id.idiag_src);
    place(ends.localAddress, id.idiag_dst);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    std::optional<uid_t> owner;
    if (::sendto(netlink, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof kernel) == static_cast<ssize_t>(sizeof message)) {
        alignas(nlmsghdr) char buffer[8192];
        ssize_t received = ::recv(netlink, buffer, sizeof buffer, 0);
        // One answer for one socket, or an error message when the kernel knows none.
        nlmsghdr header{};
        constexpr std::size_t kBody = NLMSG_ALIGN(sizeof(nlmsghdr));
        if (received >= static_cast<ssize_t>(kBody + sizeof(inet_diag_msg))) {
            std::memcpy(&header, buffer, sizeof header);
            if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY) {
                inet_diag_msg answer{};
                std::memcpy(&answer, buffer + kBody, sizeof answer);
                if (answer.idiag_state == kEstablished) owner = answer.idiag_uid;
            }
        }
    }
    return owner;
}

// "0100007F:1F92" in /proc/net/tcp: each 32-bit word of the address as the kernel holds it,
// printed as a number, then the port.
std::string procAddress(const std::array<std::uint8_t, 16>& address, bool ipv4, bool asIpv6,
                        std::uint16_t port) {
    std::uint8_t bytes[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (!asIpv6) {
        std::memcpy(bytes, address.data(), 4);
    } else if (ipv4) {
        std::memcpy(bytes + 12, address.data(), 4);
    } else {
        std::memcpy(bytes, address.data(), 16);
    }
    std::string text;
    char word[9];
    for (int i = 0; i < (asIpv6 ? 4 : 1); ++i) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes + 4 * i, 4);
        std::snprintf(word, sizeof word, "%08X", value);
        text += word;
    }
    char portText[6];
    std::snprintf(portText, sizeof portText, "%04X", port);
    return text + ":" + portText;
}

std::optional<uid_t> readProcTable(const Ends& ends, const char* path, bool asIpv6) {
    if (!asIpv6 && !ends.ipv4) return std::nullopt;
    std::ifstream table(path);
    std::string wantedLocal = procAddress(ends.peerAddress, ends.ipv4, asIpv6, ends.peerPort);
    std::string wantedRemote = procAddress(ends.localAddress, ends.ipv4, asIpv6, ends.localPort);
    std::string line;
    std::getline(table, line);  // the header
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, timer, retransmits;
        uid_t uid = 0;
        if (fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid &&
            local == wantedLocal && remote == wantedRemote && state == "01")  // ESTABLISHED
            return uid;
    }
    return std::nullopt;
}

}  // namespace

PeerUsers::PeerUsers()
    : netlink_(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}

PeerUsers::~PeerUsers() {
    if (netlink_ >= 0) ::close(netlink_);
}

uid_t PeerUsers::ownerOfPeer(int descriptor) {
    Ends ends = endsOf(descriptor);
    {
        std::lock_guard lock(mutex_);
        for (int family : {AF_INET, AF_INET6}) {
            if (family == AF_INET && !ends.ipv4) continue;
            if (auto owner = askSockDiag(netlink_, ends, family)) return *owner;
        }
    }
    if (auto owner = readProcTable(ends, "/proc/net/tcp", false)) return *owner;
    if (auto owner = readProcTable(ends, "/proc/net/tcp6", true)) return *owner;
    throw Error("the client's socket is no longer connected, or unknown to the kernel");
}

}  // namespace corvane
