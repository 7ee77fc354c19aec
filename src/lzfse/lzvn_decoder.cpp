#include "lzfse/lzvn_decoder.h"

#include <array>
#include <string>

#include "lzfse/byte_io.h"
#include "lzfse/lzfse.h"

namespace corvane::lzfse {
namespace {

enum class Op : uint8_t {
    smallDistance,
    mediumDistance,
    largeDistance,
    previousDistance,
    smallMatch,
    largeMatch,
    smallLiteral,
    largeLiteral,
    nop,
    end,
    undefined,
};

constexpr Op classify(unsigned b) {
    if (b == 0x06) return Op::end;
    if (b == 0x0E || b == 0x16) return Op::nop;
    if (b == 0xE0) return Op::largeLiteral;
    if (b >= 0xE1 && b <= 0xEF) return Op::smallLiteral;
    if (b == 0xF0) return Op::largeMatch;
    if (b >= 0xF1) return Op::smallMatch;
    if (b >= 0xA0 && b <= 0xBF) return Op::mediumDistance;
    if ((b >= 0x70 && b <= 0x7F) || (b >= 0xD0 && b <= 0xDF)) return Op::undefined;
    if ((b & 7) == 7) return Op::largeDistance;
    if ((b & 7) == 6) return b >= 0x40 ? Op::previousDistance : Op::undefined;
    return Op::smallDistance;
}

constexpr std::array<Op, 256> kOpOf = [] {
    std::array<Op, 256> table{};
    for (unsigned b = 0; b < 256; ++b) {
        table[b] = classify(b);
    }
    return table;
}();

// Opcode bytes before the instruction's literals.
constexpr size_t opcodeBytes(Op op) {
    switch (op) {
        case Op::smallDistance:
        case Op::largeMatch:
        case Op::largeLiteral:
            return 2;
        case Op::mediumDistance:
        case Op::largeDistance:
            return 3;
        case Op::end:
            return 8;
        default:
            return 1;
    }
}

[[noreturn]] void fail(const char* what) {
    throw FormatError(std::string("lzvn: ") + what);
}

}  // namespace

void decodeLzvnBlock(std::span<const uint8_t> payload, uint32_t nRawBytes, DecodeOutput& out) {
    const uint8_t* p = payload.data();
    const uint8_t* const end = p + payload.size();
    size_t remaining = nRawBytes;
    size_t pos = out.size();
    size_t prevD = 0;  // none yet in this block

    while (true) {
        if (p == end) fail("payload ends without end opcode");
        unsigned op = p[0];
        Op kind = kOpOf[op];
        size_t opBytes = opcodeBytes(kind);
        if (static_cast<size_t>(end - p) < opBytes) fail("truncated opcode");
        size_t l = 0;
        size_t m = 0;
        size_t d = prevD;
        switch (kind) {
            case Op::smallDistance:
                l = op >> 6;
                m = ((op >> 3) & 7) + 3;
                d = ((op & 7) << 8) | p[1];
                break;
            case Op::mediumDistance: {
                // 101LLMMM, then u16 w: low 2 bits extend M, the rest is D.
                unsigned w = load16(p + 1);
                l = (op >> 3) & 3;
                m = (((op & 7) << 2) | (w & 3)) + 3;
                d = w >> 2;
                break;
            }
            case Op::largeDistance:
                l = op >> 6;
                m = ((op >> 3) & 7) + 3;
                d = load16(p + 1);
                break;
            case Op::previousDistance:
                l = op >> 6;
                m = ((op >> 3) & 7) + 3;
                break;
            case Op::smallMatch:
                m = op & 15;
                break;
            case Op::largeMatch:
                m = p[1] + 16u;
                break;
            case Op::smallLiteral:
                l = op & 15;
                break;
            case Op::largeLiteral:
                l = p[1] + 16u;
                break;
            case Op::nop:
                ++p;
                continue;
            case Op::end:
                if (end - p != 8) fail("end opcode is not the last 8 payload bytes");
                if (remaining != 0) fail("block produced fewer bytes than declared");
                out.setSize(pos);
                return;
            case Op::undefined:
                fail("undefined opcode");
        }

        const uint8_t* literals = p + opBytes;
        if (l > static_cast<size_t>(end - literals)) fail("literals run past the payload");
        if (l + m > remaining) fail("block produces more bytes than declared");
        remaining -= l + m;
        if (pos + l + m > out.capacity()) {
            out.setSize(pos);
            out.reserve(l + m);
        }
        uint8_t* dst = out.data() + pos;
        if (static_cast<size_t>(end - literals) >= l + 16) {
            copyChunks(dst, literals, l);
        } else {
            std::memcpy(dst, literals, l);
        }
        pos += l;
        p = literals + l;
        if (m > 0) {
            if (d == 0 || d > pos) fail("match distance out of range");
            copyMatch(dst + l, d, m);
            pos += m;
            prevD = d;
        }
    }
}

}  // namespace corvane::lzfse
