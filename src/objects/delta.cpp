#include "objects/delta.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "base/error.h"

namespace corvane {

namespace {

// Pack objects are at most this large; a delta claiming more is refused before anything grows.
constexpr std::uint64_t kMaxResultSize = 0xffffffffu;
// A size-less copy copies this much.
constexpr std::uint64_t kDefaultCopySize = 0x10000;

[[noreturn]] void invalid() {
    throw Error("Invalid ref_delta");
}

// Little-endian base 128, low seven bits per byte, bit 7 set on all but the last byte. Data that
// ends mid-number leaves the value read so far; bits past the 64th are dropped.
std::uint64_t readSize(const std::uint8_t*& position, const std::uint8_t* end) {
    std::uint64_t value = 0;
    unsigned shift = 0;
    while (position < end) {
        std::uint8_t byte = *position++;
        if (shift < 64) {
            value |= std::uint64_t{byte & 0x7fu} << shift;
            shift += 7;
        }
        if (!(byte & 0x80)) break;
    }
    return value;
}

}  // namespace

// Layout: base size, result size (both base-128 numbers), then instructions to the end:
//   1xxxxxxx copy: flags 0x01..0x08 each bring one offset byte (bits 0-7 .. 24-31),
//            then flags 0x10..0x40 one size byte (bits 0-7 .. 16-23); size 0 means 0x10000
//   0nnnnnnn insert the n literal bytes that follow (n = 0 is reserved)
Object apply(const Object& base, const RefDelta& delta) {
    const Bytes& instructions = delta.data;
    if (instructions.size() < 4) invalid();
    const std::uint8_t* position = instructions.data();
    const std::uint8_t* const end = position + instructions.size();
    std::uint64_t baseSize = readSize(position, end);
    std::uint64_t resultSize = readSize(position, end);
    const Bytes& source = base.data();
    if (source.size() != baseSize) invalid();
    if (resultSize > kMaxResultSize) invalid();

    // The declared size is only a claim: reserve at most what base and delta together plausibly
    // make, and never let the result outgrow the claim, so memory follows real output.
    Bytes result;
    result.reserve(std::min<std::uint64_t>(resultSize, baseSize + instructions.size()));
    auto room = [&] { return resultSize - result.size(); };
    while (position < end) {
        std::uint8_t opcode = *position++;
        if (opcode & 0x80) {
            std::uint64_t offset = 0;
            std::uint64_t size = 0;
            for (unsigned byte = 0; byte < 4; ++byte) {
                if (!(opcode & (0x01u << byte))) continue;
                if (position == end) invalid();
                offset |= std::uint64_t{*position++} << (8 * byte);
            }
            for (unsigned byte = 0; byte < 3; ++byte) {
                if (!(opcode & (0x10u << byte))) continue;
                if (position == end) invalid();
                size |= std::uint64_t{*position++} << (8 * byte);
            }
            if (size == 0) size = kDefaultCopySize;
            if (offset + size > baseSize || size > room()) invalid();
            result.insert(result.end(), source.begin() + static_cast<std::ptrdiff_t>(offset),
                          source.begin() + static_cast<std::ptrdiff_t>(offset + size));
        } else if (opcode == 0) {
            invalid();
        } else {
            if (static_cast<std::size_t>(end - position) < opcode || opcode > room()) invalid();
            result.insert(result.end(), position, position + opcode);
            position += opcode;
        }
    }
    if (result.size() != resultSize) invalid();
    return Object(base.type(), std::move(result));
}

}  // namespace corvane
