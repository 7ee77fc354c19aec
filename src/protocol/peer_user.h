// Which local user the other end of a loopback TCP connection belongs to: the owner of the
// client's socket, asked of the kernel's socket diagnostics (sock_diag netlink), else read from
// /proc/net/tcp and /proc/net/tcp6.
//
// Threads: any; the netlink socket, opened once when the lookup is made, is used under a lock,
// so a check needs no new descriptor even when the process has run out of them.
#pragma once

#include <sys/types.h>

#include <mutex>

namespace corvane {

class PeerUsers {
  public:
    PeerUsers();
    ~PeerUsers();
    PeerUsers(const PeerUsers&) = delete;
    PeerUsers& operator=(const PeerUsers&) = delete;

    // The user owning the peer's socket of the connected `descriptor`, while that socket is
    // connected (ESTABLISHED). Fails with an Error that says why otherwise, or when neither
    // source knows the socket.
    uid_t ownerOfPeer(int descriptor);

  private:
    std::mutex mutex_;
    int netlink_;  // -1 when the kernel offers no socket diagnostics; guarded by mutex_
};

}  // namespace corvane
