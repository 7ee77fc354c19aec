#include "lzfse/lzfse_encoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>

#include "lzfse/block_writer.h"
#include "lzfse/byte_io.h"
#include "lzfse/format.h"

namespace corvane::lzfse {
namespace {

// Tunables of the reference encoder, kept so our ratio matches it.
constexpr int kMaxHashBits = 14;
constexpr int kGoodMatch = 40;  // long enough to take without looking further
constexpr int32_t kMaxMatchLength = 100 * kMaxM;
constexpr int32_t kLiteralBacklog = 8 * kMaxL;  // flush literals once this many wait
// Empty table entries point this far back, so no distance check accepts them.
constexpr int32_t kUnusedPosition = -4 * static_cast<int32_t>(kMaxD);
// Inputs are parsed in segments whose positions fit int32 comfortably.
constexpr size_t kMaxSegment = size_t{1} << 30;

// The four most recent positions whose first 4 bytes hashed to this row, newest first.
struct alignas(32) Row {
    std::array<int32_t, 4> position;
    std::array<uint32_t, 4> value;
};

struct Match {
    int32_t start = 0;
    int32_t ref = 0;
    int32_t length = 0;
    int32_t end() const { return start + length; }
};

class Parser {
  public:
    Parser(std::span<const uint8_t> input, std::vector<uint8_t>& out)
        : in_(input.data()), n_(static_cast<int32_t>(input.size())), out_(out) {
        // Small inputs get a smaller table: fewer rows to clear, hardly any more collisions.
        int bits = std::clamp(static_cast<int>(std::bit_width(input.size())) - 1, 8, kMaxHashBits);
        hashShift_ = 32 - bits;
        rows_ = std::make_unique_for_overwrite<Row[]>(size_t{1} << bits);
        std::fill_n(rows_.get(), size_t{1} << bits,
                    Row{{kUnusedPosition, kUnusedPosition, kUnusedPosition, kUnusedPosition},
                        {0, 0, 0, 0}});
    }

    void run();

  private:
    int32_t matchLength(int32_t q, int32_t p) const;
    void consider(int32_t p, uint32_t x, const Row& old);
    void emit(int32_t start, int32_t distance, int32_t length);
    void emitPending() {
        emit(pending_.start, pending_.start - pending_.ref, pending_.length);
        hasPending_ = false;
    }

    const uint8_t* in_;
    int32_t n_;
    std::vector<uint8_t>& out_;
    int hashShift_ = 0;
    std::unique_ptr<Row[]> rows_;
    BlockWriter block_;
    int32_t litPos_ = 0;  // first byte not yet covered by a triple
    Match pending_;
    bool hasPending_ = false;
};

// 4 known-equal bytes, then 8 at a time while before the last 8 input bytes (so it may end up
// to 7 bytes into them).
int32_t Parser::matchLength(int32_t q, int32_t p) const {
    int32_t length = 4;
    int32_t limit = n_ - p - 8;
    while (length < limit) {
        uint64_t diff = load64(in_ + q + length) ^ load64(in_ + p + length);
        if (diff != 0) return length + std::countr_zero(diff) / 8;
        length += 8;
    }
    return length;
}

void Parser::run() {
    for (int32_t p = 0; p < n_ - 8; ++p) {
        uint32_t x = load32(in_ + p);
        Row& row = rows_[(x * 2654435761u) >> hashShift_];
        Row old = row;
        row.position = {p, old.position[0], old.position[1], old.position[2]};
        row.value = {x, old.value[0], old.value[1], old.value[2]};
        if (p >= litPos_) consider(p, x, old);
    }
    if (hasPending_) emitPending();
    emit(n_, 1, 0);
    block_.flush(out_);
}

void Parser::consider(int32_t p, uint32_t x, const Row& old) {
    Match best;
    for (int i = 0; i < 4; ++i) {
        int32_t q = old.position[i];
        if (old.value[i] != x || q + static_cast<int32_t>(kMaxD) < p) continue;
        int32_t length = matchLength(q, p);
        if (length > best.length) best = {p, q, length};
    }
    if (best.length == 0) {
        if (p - litPos_ > kLiteralBacklog) {
            if (hasPending_) {
                emitPending();
            } else {
                emit(litPos_ + static_cast<int32_t>(kMaxL), 1, 0);
            }
        }
        return;
    }
    best.length = std::min(best.length, kMaxMatchLength);
    while (best.start > litPos_ && best.ref > 0 && in_[best.start - 1] == in_[best.ref - 1]) {
        --best.start;
        --best.ref;
        ++best.length;
    }
    if (best.length >= kGoodMatch) {
        hasPending_ = false;
        emit(best.start, best.start - best.ref, best.length);
    } else if (!hasPending_) {
        pending_ = best;
        hasPending_ = true;
    } else if (pending_.end() <= best.start) {
        emitPending();
        pending_ = best;
        hasPending_ = true;
    } else {
        if (best.length > pending_.length) pending_ = best;
        emitPending();
    }
}

// Emits the literals from litPos_ to start, then a match of `length` bytes at `distance`
// (length 0 with distance 1 emits literals only), split to the per-triple limits. All its
// triples go into one block: if they do not fit, the block is written first.
void Parser::emit(int32_t start, int32_t distance, int32_t length) {
    uint32_t l = static_cast<uint32_t>(start - litPos_);
    uint32_t m = static_cast<uint32_t>(length);
    uint32_t d = static_cast<uint32_t>(distance);
    uint32_t literalRuns = l > kMaxL ? (l - 1) / kMaxL : 0;
    uint32_t longPieces = m > kMaxM ? (m - 1) / kMaxM : 0;
    uint32_t lastL = l - literalRuns * kMaxL;
    uint32_t lastM = m - longPieces * kMaxM;
    bool last = (longPieces == 0 ? lastL : 0) > 0 || lastM > 0;
    size_t triples = literalRuns + longPieces + (last ? 1 : 0);
    if (!block_.fits(triples, l)) block_.flush(out_);

    const uint8_t* lit = in_ + litPos_;
    for (uint32_t i = 0; i < literalRuns; ++i) {
        block_.add({kMaxL, 0, 1}, lit);
        lit += kMaxL;
    }
    for (uint32_t i = 0; i < longPieces; ++i) {
        block_.add({lastL, kMaxM, d}, lit);
        lit += lastL;
        lastL = 0;
    }
    if (lastL > 0 || lastM > 0) block_.add({lastL, lastM, d}, lit);
    litPos_ = start + length;
}

}  // namespace

void encodeLzfseBlocks(std::span<const uint8_t> input, std::vector<uint8_t>& out) {
    // Huge inputs are parsed in independent segments; their blocks still form one stream.
    for (size_t at = 0; at < input.size(); at += kMaxSegment) {
        Parser parser(input.subspan(at, std::min(kMaxSegment, input.size() - at)), out);
        parser.run();
    }
}

}  // namespace corvane::lzfse
