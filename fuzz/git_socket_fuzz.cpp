// Feeds arbitrary bytes to a connection as a client would send them, and reads them the way the
// server does: as pkt-lines (first byte even) or as a pushed pack (first byte odd). Every
// failure must be an Error; nothing may crash, hang or allocate without bound.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "base/error.h"
#include "protocol/git_socket.h"

namespace {

constexpr std::uint32_t kMaxObjects = 256;

void readPack(corvane::GitSocket& socket) {
    std::uint32_t count = socket.readPackHeader();
    for (std::uint32_t i = 0; i < count && i < kMaxObjects; ++i) {
        auto [type, size] = socket.readObjectHeader();
        if (type == corvane::ObjectType::refDelta) socket.readRawBytes(20);
        socket.inflateObject(size);
    }
    socket.readRawBytes(20);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 0;
    int buffer = 1 << 20;
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    // The whole input is in flight before reading starts; then the peer is gone.
    if (write(ends[1], data + 1, size - 1) == static_cast<ssize_t>(size - 1)) {
        shutdown(ends[1], SHUT_WR);
        try {
            corvane::GitSocket socket(ends[0]);
            if (data[0] % 2 == 0) {
                for (;;)
                    socket.readPktLine();
            }
            readPack(socket);
        } catch (const corvane::Error&) {
        }
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
