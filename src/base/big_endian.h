// Big-endian integers of 1 to 8 bytes, as the binary formats here store them. Pure; any thread.
#pragma once

#include <cstdint>

#include "base/bytes.h"

namespace corvane {

inline void putBigEndian(Bytes& out, std::uint64_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

// The caller has checked that `bytes` bytes are there.
inline std::uint64_t readBigEndian(const std::uint8_t* in, int bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value = (value << 8) | in[i];
    return value;
}

}  // namespace corvane
