// Server: the local git daemon. Listens on 127.0.0.1, accepts connections on its own "server"
// thread, serves each connection on a thread of its own, reads the request line, looks the
// repository up and runs the named command. A client whose socket belongs to another user of
// the machine is refused before its request is read.
//
// A failing accept() (no descriptors left, no memory, an aborted connection) is logged and
// retried after a pause: the daemon never stops accepting while it runs.
//
// Threads: start() launches the accept thread; each connection thread is detached but counted,
// and the destructor stops accepting, cuts open connections and waits for all of them, so the
// lookup and command table outlive every use. Fields below mutex_ are guarded by it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "protocol/peer_user.h"
#include "protocol/server_command.h"

namespace corvane {

class Server {
  public:
    static constexpr std::uint16_t kDefaultPort = 9418;
    // What a client of another user is told (after "ERR ").
    static constexpr const char* kOtherUserRefusal =
        "access denied: this Corvane belongs to another user";

    // Whether a daemon on the port refuses this user as another user's Corvane does: what a
    // failed start on a shared machine usually means. Waits up to two seconds for an answer.
    static bool heldByAnotherUsersCorvane(std::uint16_t port);

    // A connection is dropped when its client keeps the server waiting this long: for the
    // request line, or for any later read or write (a client that stopped reading a clone).
    struct Timeouts {
        std::chrono::milliseconds request{std::chrono::seconds(30)};
        std::chrono::milliseconds idle{std::chrono::minutes(10)};
    };
    // How long the accept loop pauses after accept() failed (out of descriptors or memory).
    static constexpr std::chrono::milliseconds kAcceptRetryPause{100};

    Server(RepositoryLookup lookup, CommandTable commands);
    Server(RepositoryLookup lookup, CommandTable commands, Timeouts timeouts);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Binds and listens on 127.0.0.1:port (0 lets the kernel choose) and starts accepting.
    // Logs "Listening on port N" or "Failed to start server on port N"; false on failure.
    bool start(std::uint16_t port = kDefaultPort);

    // The port actually bound; meaningful after a successful start().
    std::uint16_t port() const { return port_; }

    // Runs one connection's request to its end (also used by tests on socket pairs).
    void handleRequest(GitSocket& connection);

  private:
    void acceptLoop();
    // After a failed accept(): false when the server is stopping, else true after a pause.
    bool pauseAfterAcceptFailure(const std::string& reason);
    void handleConnection(std::unique_ptr<GitSocket> connection);
    // Ends a connection without resetting it: stop sending, read what the client still had in
    // flight (bounded in time and size), then close.
    static void closeConnection(int descriptor);

    RepositoryLookup lookup_;
    CommandTable commands_;
    Timeouts timeouts_;
    std::unique_ptr<GitSocket> listener_;
    std::unique_ptr<PeerUsers> peerUsers_;  // set with the listener, before any connection
    std::uint16_t port_ = 0;
    std::thread acceptThread_;

    std::mutex mutex_;
    std::condition_variable connectionsChanged_;
    std::set<int> connections_;  // open descriptors being served
    std::size_t active_ = 0;     // connection threads not yet finished
    bool stopping_ = false;
};

}  // namespace corvane
