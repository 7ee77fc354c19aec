#include "lzfse/block_writer.h"

#include <array>
#include <cstring>

#include "lzfse/bit_stream.h"
#include "lzfse/block_header.h"
#include "lzfse/format.h"
#include "lzfse/fse.h"

namespace corvane::lzfse {

BlockWriter::BlockWriter() {
    triples_.reserve(kMaxMatches);
    literals_.reserve(kMaxLiterals);
}

void BlockWriter::flush(std::vector<uint8_t>& out) {
    if (empty()) return;
    BlockHeader h;
    while (literals_.size() % 4 != 0) {
        literals_.push_back(0);
    }
    h.nLiterals = static_cast<uint32_t>(literals_.size());
    h.nMatches = static_cast<uint32_t>(triples_.size());

    // Distances equal to the previous triple's become the repeat code 0; then count symbols.
    std::array<uint32_t, kLSymbols> lCount{};
    std::array<uint32_t, kMSymbols> mCount{};
    std::array<uint32_t, kDSymbols> dCount{};
    std::array<uint32_t, kLiteralSymbols> literalCount{};
    uint32_t previous = 0;
    for (Triple& t : triples_) {
        if (t.d == previous) {
            t.d = 0;
        } else {
            previous = t.d;
        }
        h.nRawBytes += t.l + t.m;
        ++lCount[kLSymbolOf[t.l]];
        ++mCount[kMSymbolOf[t.m]];
        ++dCount[dSymbolOf(t.d)];
    }
    for (uint8_t b : literals_) {
        ++literalCount[b];
    }

    normalizeCounts(lCount.data(), kLSymbols, kLStateBits, h.lFreq.data());
    normalizeCounts(mCount.data(), kMSymbols, kMStateBits, h.mFreq.data());
    normalizeCounts(dCount.data(), kDSymbols, kDStateBits, h.dFreq.data());
    normalizeCounts(literalCount.data(), kLiteralSymbols, kLiteralStateBits, h.literalFreq.data());
    std::array<EncodeEntry, kLSymbols> lTable;
    std::array<EncodeEntry, kMSymbols> mTable;
    std::array<EncodeEntry, kDSymbols> dTable;
    std::array<EncodeEntry, kLiteralSymbols> literalTable;
    buildEncodeTable(kLStateBits, kLSymbols, h.lFreq.data(), lTable.data());
    buildEncodeTable(kMStateBits, kMSymbols, h.mFreq.data(), mTable.data());
    buildEncodeTable(kDStateBits, kDSymbols, h.dFreq.data(), dTable.data());
    buildEncodeTable(kLiteralStateBits, kLiteralSymbols, h.literalFreq.data(), literalTable.data());
    h.headerSize = packedHeaderSize(h);

    // Worst cases: 10 bits per literal, 54 bits per triple, plus 8 bytes of writer slack.
    size_t start = out.size();
    size_t literalBound = (size_t{h.nLiterals} * 10 + 7) / 8;
    size_t lmdBound = kLmdPrefixBytes + (size_t{h.nMatches} * 54 + 7) / 8;
    out.resize(start + h.headerSize + literalBound + lmdBound + 8);

    // Literals go in backwards, each group of four from coder 3 down to coder 0.
    uint8_t* literalOut = out.data() + start + h.headerSize;
    ForwardBitWriter literalWriter(literalOut);
    std::array<uint32_t, 4> s{};
    const uint8_t* lit = literals_.data();
    for (size_t i = h.nLiterals; i > 0; i -= 4) {
        fseEncode(s[3], literalTable[lit[i - 1]], literalWriter);
        fseEncode(s[2], literalTable[lit[i - 2]], literalWriter);
        fseEncode(s[1], literalTable[lit[i - 3]], literalWriter);
        fseEncode(s[0], literalTable[lit[i - 4]], literalWriter);
        literalWriter.flush();
    }
    h.nLiteralPayloadBytes = static_cast<uint32_t>(literalWriter.finish());
    h.literalBits = literalWriter.bits();
    for (int i = 0; i < 4; ++i) {
        h.literalState[i] = static_cast<uint16_t>(s[i]);
    }

    // Triples go in backwards too, each as D, M, L with extra bits before state bits, so the
    // reader meets L, M, D with state bits first.
    uint8_t* lmdOut = literalOut + h.nLiteralPayloadBytes;
    std::memset(lmdOut, 0, kLmdPrefixBytes);
    ForwardBitWriter lmdWriter(lmdOut + kLmdPrefixBytes);
    uint32_t lState = 0;
    uint32_t mState = 0;
    uint32_t dState = 0;
    for (size_t i = triples_.size(); i > 0; --i) {
        const Triple& t = triples_[i - 1];
        int dSymbol = dSymbolOf(t.d);
        lmdWriter.write(t.d - kDBase[dSymbol], kDExtraBits[dSymbol]);
        fseEncode(dState, dTable[dSymbol], lmdWriter);
        int mSymbol = kMSymbolOf[t.m];
        lmdWriter.write(t.m - kMBase[mSymbol], kMExtraBits[mSymbol]);
        fseEncode(mState, mTable[mSymbol], lmdWriter);
        int lSymbol = kLSymbolOf[t.l];
        lmdWriter.write(t.l - kLBase[lSymbol], kLExtraBits[lSymbol]);
        fseEncode(lState, lTable[lSymbol], lmdWriter);
        lmdWriter.flush();
    }
    h.nLmdPayloadBytes = static_cast<uint32_t>(kLmdPrefixBytes + lmdWriter.finish());
    h.lmdBits = lmdWriter.bits();
    h.lState = static_cast<uint16_t>(lState);
    h.mState = static_cast<uint16_t>(mState);
    h.dState = static_cast<uint16_t>(dState);

    writePackedHeader(h, out.data() + start);
    out.resize(start + h.headerSize + h.nLiteralPayloadBytes + h.nLmdPayloadBytes);
    triples_.clear();
    literals_.clear();
}

}  // namespace corvane::lzfse
