// Little-endian loads and stores on unaligned byte pointers, shared by the codec's parts.
// Pure functions; thread-safe.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace corvane::lzfse {

static_assert(std::endian::native == std::endian::little, "the codec assumes a little-endian host");

inline uint16_t load16(const uint8_t* p) {
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline uint32_t load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline uint64_t load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store16(uint8_t* p, uint16_t v) {
    std::memcpy(p, &v, sizeof v);
}
inline void store32(uint8_t* p, uint32_t v) {
    std::memcpy(p, &v, sizeof v);
}
inline void store64(uint8_t* p, uint64_t v) {
    std::memcpy(p, &v, sizeof v);
}

}  // namespace corvane::lzfse
