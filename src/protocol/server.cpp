#include "protocol/server.h"

#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <exception>

#include "base/error.h"
#include "base/queues.h"
#include "base/trace.h"
#include "protocol/git_socket.h"
#include "protocol/peer_user.h"
#include "protocol/request_line.h"

namespace corvane {

namespace {

constexpr const char* kAddress = "127.0.0.1";
// Room for the parallel clones of a build farm: connections past it are refused.
constexpr int kBacklog = SOMAXCONN;
// How long and how much a finished connection keeps reading what the client still sends.
constexpr auto kLingerTime = std::chrono::seconds(1);
constexpr std::size_t kLingerBytes = 1 << 20;

// Blocking reads and writes on the socket fail with EAGAIN after this long.
void setTimeout(int descriptor, int option, std::chrono::milliseconds timeout) {
    timeval value{};
    value.tv_sec = static_cast<time_t>(timeout.count() / 1000);
    value.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
    ::setsockopt(descriptor, SOL_SOCKET, option, &value, sizeof value);
}

std::string secondsText(std::chrono::milliseconds duration) {
    auto tenths = duration.count() / 100;
    return std::to_string(tenths / 10) + (tenths % 10 ? "." + std::to_string(tenths % 10) : "") +
           " s";
}

// A daemon serves the user it runs as: the loopback address keeps other machines out, not the
// other people of this one. Refuses anyone else with an ERR line git shows.
void refuseOtherUsers(PeerUsers& peerUsers, GitSocket& connection) {
    uid_t peer = 0;
    try {
        peer = peerUsers.ownerOfPeer(connection.sock());
    } catch (const Error& error) {
        connection.writePktLine("ERR access denied: the client's user cannot be determined\n");
        throw Error(std::string("Refused a connection whose user cannot be determined: ") +
                    error.what());
    }
    if (peer == ::geteuid()) return;
    connection.writePktLine(std::string("ERR ") + Server::kOtherUserRefusal + "\n");
    throw Error("Refused a connection of user " + std::to_string(peer) + ": this Corvane is user " +
                std::to_string(::geteuid()) + "'s");
}

}  // namespace

Server::Server(RepositoryLookup lookup, CommandTable commands)
    : Server(std::move(lookup), std::move(commands), Timeouts{}) {}

Server::Server(RepositoryLookup lookup, CommandTable commands, Timeouts timeouts)
    : lookup_(std::move(lookup)), commands_(std::move(commands)), timeouts_(timeouts) {}

Server::~Server() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    // Shutting the sockets down wakes the blocked accept and every blocked recv.
    if (listener_) ::shutdown(listener_->sock(), SHUT_RDWR);
    for (int descriptor : connections_)
        ::shutdown(descriptor, SHUT_RDWR);
    connectionsChanged_.notify_all();  // ends a pause after a failed accept
    lock.unlock();
    if (acceptThread_.joinable()) acceptThread_.join();
    lock.lock();
    connectionsChanged_.wait(lock, [&] { return active_ == 0; });
    if (listener_) ::close(listener_->sock());
}

bool Server::start(std::uint16_t port) {
    auto fail = [&](int descriptor) {
        if (descriptor >= 0) ::close(descriptor);
        trace(TraceModule::error, "Failed to start server on port " + std::to_string(port));
        return false;
    };
    int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return fail(descriptor);
    std::unique_ptr<GitSocket> listener;
    try {
        listener = std::make_unique<GitSocket>(descriptor);
    } catch (const Error&) {
        return fail(descriptor);
    }
    if (!listener->setKeepAlive() || !listener->setNoSigPipe() || !listener->setReuseAddress() ||
        !listener->bind(kAddress, port) || ::listen(descriptor, kBacklog) != 0) {
        return fail(descriptor);
    }
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        return fail(descriptor);
    }
    port_ = ntohs(bound.sin_port);
    peerUsers_ = std::make_unique<PeerUsers>();
    listener_ = std::move(listener);
    trace(TraceModule::info, "Listening on port " + std::to_string(port_));
    trace(TraceModule::info, "Clients are dropped after " + secondsText(timeouts_.request) +
                                 " without a request, or " + secondsText(timeouts_.idle) +
                                 " without progress");
    acceptThread_ = std::thread([this] { acceptLoop(); });
    return true;
}

bool Server::heldByAnotherUsersCorvane(std::uint16_t port) {
    int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return false;
    setTimeout(descriptor, SO_RCVTIMEO, std::chrono::seconds(2));
    setTimeout(descriptor, SO_SNDTIMEO, std::chrono::seconds(2));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(descriptor);
        return false;
    }
    bool refused = false;
    try {
        GitSocket probe(descriptor);
        probe.writePktLine(std::string("git-upload-pack /") + '\0' + "host=localhost" + '\0');
        refused = probe.readPktLine().starts_with(std::string("ERR ") + kOtherUserRefusal);
    } catch (const Error&) {
        refused = false;
    }
    ::close(descriptor);
    return refused;
}

void Server::acceptLoop() {
    setThreadName("server");
    for (;;) {
        std::unique_ptr<GitSocket> connection;
        try {
            connection = listener_->accept();
        } catch (const Error& error) {
            if (pauseAfterAcceptFailure(error.what())) continue;
            return;
        }
        int one = 1;
        ::setsockopt(connection->sock(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        setTimeout(connection->sock(), SO_RCVTIMEO, timeouts_.request);
        setTimeout(connection->sock(), SO_SNDTIMEO, timeouts_.idle);
        std::lock_guard lock(mutex_);
        if (stopping_) {
            ::close(connection->sock());
            return;
        }
        connections_.insert(connection->sock());
        ++active_;
        std::thread([this, c = std::move(connection)]() mutable {
            setThreadName("server-conn");
            handleConnection(std::move(c));
        }).detach();
    }
}

bool Server::pauseAfterAcceptFailure(const std::string& reason) {
    std::unique_lock lock(mutex_);
    if (stopping_) return false;  // the listener was shut down
    trace(TraceModule::error, "Failed to accept a connection: " + reason + "; trying again");
    // The destructor's notify ends the pause at once.
    connectionsChanged_.wait_for(lock, kAcceptRetryPause, [&] { return stopping_; });
    return !stopping_;
}

void Server::handleConnection(std::unique_ptr<GitSocket> connection) {
    try {
        handleRequest(*connection);
    } catch (const std::exception& error) {
        trace(TraceModule::error, error.what());
    }
    int descriptor = connection->sock();
    connection.reset();
    {
        // Out of the set before the close, so the destructor never shuts down a reused number.
        std::lock_guard lock(mutex_);
        connections_.erase(descriptor);
    }
    closeConnection(descriptor);
    bool idle = false;
    {
        std::lock_guard lock(mutex_);
        idle = --active_ == 0;
        connectionsChanged_.notify_all();
    }
    // A clone or push of a long history frees hundreds of megabytes, which the allocator would
    // keep for later; an idle daemon gives them back.
    if (idle) ::malloc_trim(0);
}

void Server::handleRequest(GitSocket& connection) {
    refuseOtherUsers(*peerUsers_, connection);
    auto request = parseRequestLine(connection.readPktLine());
    setTimeout(connection.sock(), SO_RCVTIMEO, timeouts_.idle);
    trace(TraceModule::info, request.command + " " + request.path);
    try {
        auto repository = lookup_(request.name, request.owner);
        auto factory = commands_.find(request.command);
        if (factory == commands_.end()) throw Error("Invalid command: " + request.command);
        factory->second(connection, std::move(repository))->run();
    } catch (const std::exception& error) {
        trace(TraceModule::error, error.what());
        if (connection.hasSideBand()) connection.writeError(error.what());
    }
}

void Server::closeConnection(int descriptor) {
    ::shutdown(descriptor, SHUT_WR);
    auto deadline = std::chrono::steady_clock::now() + kLingerTime;
    std::size_t discarded = 0;
    char scratch[4096];
    while (discarded < kLingerBytes) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd waiting{descriptor, POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) break;
        ssize_t received = ::recv(descriptor, scratch, sizeof scratch, 0);
        if (received <= 0) break;
        discarded += static_cast<std::size_t>(received);
    }
    ::close(descriptor);
}

}  // namespace corvane
