// Which local user the other end of a loopback TCP connection belongs to: the owner of the
// client's socket, asked of the kernel's socket diagnostics (sock_diag netlink), else read from
// /proc/net/tcp and /proc/net/tcp6. Any thread.
#pragma once

#include <sys/types.h>

namespace corvane {

// The user owning the peer's socket of the connected `descriptor`. Fails with an Error that
// says why when neither source knows the socket.
uid_t peerUser(int descriptor);

}  // namespace corvane
