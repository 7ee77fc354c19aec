#include "lzfse/lzfse_block_decoder.h"

#include <cstring>
#include <string>

#include "lzfse/bit_stream.h"
#include "lzfse/lzfse.h"

namespace corvane::lzfse {
namespace {

[[noreturn]] void fail(const char* what) {
    throw FormatError(std::string("lzfse: ") + what);
}

template <size_t N>
void requireFullTable(const std::array<uint16_t, N>& freq, uint32_t states) {
    uint32_t total = 0;
    for (uint16_t f : freq) {
        total += f;
    }
    // Unowned states would have no meaning, so a table in use must hand out all of them.
    if (total != states) fail("frequency table does not cover all states");
}

void decodeLiterals(const BlockHeader& h, const uint8_t* payload, LzfseScratch& scratch) {
    requireFullTable(h.literalFreq, kLiteralStates);
    buildLiteralDecodeTable(h.literalFreq.data(), scratch.literalTable.data());

    std::array<uint8_t, 8> smallCopy;
    BackwardBitReader in(payload, h.nLiteralPayloadBytes, h.literalBits, smallCopy);
    const LiteralDecodeEntry* table = scratch.literalTable.data();
    uint8_t* lit = scratch.literals.data();
    uint32_t s0 = h.literalState[0];
    uint32_t s1 = h.literalState[1];
    uint32_t s2 = h.literalState[2];
    uint32_t s3 = h.literalState[3];
    // Whole groups of four, one per coder; n_literals <= 40000 keeps the rounded count in range.
    uint32_t count = (h.nLiterals + 3) & ~3u;
    for (uint32_t i = 0; i < count; i += 4) {
        in.refill();
        LiteralDecodeEntry e0 = table[s0];
        lit[i] = e0.symbol;
        s0 = e0.base + in.read(e0.bits);
        LiteralDecodeEntry e1 = table[s1];
        lit[i + 1] = e1.symbol;
        s1 = e1.base + in.read(e1.bits);
        LiteralDecodeEntry e2 = table[s2];
        lit[i + 2] = e2.symbol;
        s2 = e2.base + in.read(e2.bits);
        LiteralDecodeEntry e3 = table[s3];
        lit[i + 3] = e3.symbol;
        s3 = e3.base + in.read(e3.bits);
        if (in.exhausted()) fail("literal payload too short");
    }
    // Chunked literal copies read a little past the last literal; keep those bytes defined.
    std::memset(lit + count, 0, kCopySlack);
}

inline uint32_t decodeValue(uint32_t& state, const ValueDecodeEntry* table, BackwardBitReader& in) {
    ValueDecodeEntry e = table[state];
    uint32_t v = in.read(e.totalBits);
    state = e.base + (v >> e.extraBits);
    return e.valueBase + (v & ((1u << e.extraBits) - 1));
}

}  // namespace

void decodeLzfseBlock(const BlockHeader& h, const uint8_t* payloads, LzfseScratch& scratch,
                      DecodeOutput& out) {
    if (h.nLiterals > 0) {
        decodeLiterals(h, payloads, scratch);
    } else {
        std::memset(scratch.literals.data(), 0, kCopySlack);
    }
    size_t pos = out.size();
    size_t remaining = h.nRawBytes;

    if (h.nMatches > 0) {
        requireFullTable(h.lFreq, kLStates);
        requireFullTable(h.mFreq, kMStates);
        requireFullTable(h.dFreq, kDStates);
        buildValueDecodeTable(kLStateBits, kLSymbols, h.lFreq.data(), kLExtraBits.data(),
                              kLBase.data(), scratch.lTable.data());
        buildValueDecodeTable(kMStateBits, kMSymbols, h.mFreq.data(), kMExtraBits.data(),
                              kMBase.data(), scratch.mTable.data());
        buildValueDecodeTable(kDStateBits, kDSymbols, h.dFreq.data(), kDExtraBits.data(),
                              kDBase.data(), scratch.dTable.data());

        std::array<uint8_t, 8> smallCopy;
        BackwardBitReader in(payloads + h.nLiteralPayloadBytes, h.nLmdPayloadBytes, h.lmdBits,
                             smallCopy);
        const ValueDecodeEntry* lTable = scratch.lTable.data();
        const ValueDecodeEntry* mTable = scratch.mTable.data();
        const ValueDecodeEntry* dTable = scratch.dTable.data();
        uint32_t lState = h.lState;
        uint32_t mState = h.mState;
        uint32_t dState = h.dState;
        const uint8_t* lit = scratch.literals.data();
        const uint8_t* const litEnd = lit + h.nLiterals;
        uint8_t* base = out.data();
        size_t capacity = out.capacity();
        size_t d = 0;  // the repeat distance: unset at the start of every block

        for (uint32_t i = 0; i < h.nMatches; ++i) {
            in.refill();
            size_t l = decodeValue(lState, lTable, in);
            size_t m = decodeValue(mState, mTable, in);
            size_t newD = decodeValue(dState, dTable, in);
            if (in.exhausted()) fail("LMD payload too short");
            if (newD != 0) d = newD;
            if (l > static_cast<size_t>(litEnd - lit)) fail("triple uses more literals than coded");
            if (l + m > remaining) fail("block produces more bytes than declared");
            remaining -= l + m;
            if (pos + l + m > capacity) {
                out.setSize(pos);
                out.reserve(l + m);
                base = out.data();
                capacity = out.capacity();
            }
            copyChunks(base + pos, lit, l);
            lit += l;
            pos += l;
            // d == 0 wraps to the largest value, so one test covers "unset" and "too far".
            if (d - 1 >= pos) fail("match distance out of range");
            copyMatch(base + pos, d, m);
            pos += m;
        }
    }
    if (remaining != 0) fail("block produced fewer bytes than declared");
    out.setSize(pos);
}

}  // namespace corvane::lzfse
