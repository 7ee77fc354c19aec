#include "lzfse/lzvn_encoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>

#include "lzfse/byte_io.h"
#include "lzfse/format.h"

namespace corvane::lzfse {
namespace {

// Tunables of the reference encoder, kept so our ratio matches it.
constexpr int kMaxHashBits = 14;
constexpr int32_t kLiteralBacklog = 400;
constexpr size_t kMaxLargeLiteral = 271;
constexpr size_t kMaxLargeMatch = 271;
constexpr int32_t kSmallDistanceLimit = 1536;
constexpr int32_t kMediumDistanceLimit = 16384;
constexpr size_t kMaxMediumMatch = 34;

struct alignas(32) Row {
    std::array<int32_t, 4> position;
    std::array<uint32_t, 4> value;
};

struct Match {
    int32_t start = 0;
    int32_t end = 0;
    int32_t d = 0;
    int32_t score = 0;  // bytes saved, roughly: length minus the opcode's cost
};

int equalLowBytes(uint32_t a, uint32_t b) {
    uint32_t diff = a ^ b;
    return diff == 0 ? 4 : std::countr_zero(diff) / 8;
}

class Encoder {
  public:
    Encoder(std::span<const uint8_t> input, std::vector<uint8_t>& payload)
        : in_(input.data()), n_(static_cast<int32_t>(input.size())), out_(payload) {
        int bits = std::clamp(static_cast<int>(std::bit_width(input.size())), 8, kMaxHashBits);
        hashMask_ = (1u << bits) - 1;
        rows_ = std::make_unique_for_overwrite<Row[]>(size_t{1} << bits);
        // Every row starts out pointing at position 0.
        uint32_t first = load32(in_);
        std::fill_n(rows_.get(), size_t{1} << bits,
                    Row{{0, 0, 0, 0}, {first, first, first, first}});
    }

    void run();

  private:
    bool consider(int32_t p, uint32_t v, int32_t q, uint32_t qv, bool previous, Match& best) const;
    size_t putLargeLiterals(const uint8_t*& lit, size_t count);
    void putSmallLiteral(const uint8_t* lit, size_t count);
    void emitLiterals(size_t count);
    void emitMatch(const Match& match);

    const uint8_t* in_;
    int32_t n_;
    std::vector<uint8_t>& out_;
    uint32_t hashMask_ = 0;
    std::unique_ptr<Row[]> rows_;
    int32_t litPos_ = 0;
    int32_t dPrev_ = 0;
    Match pending_;
    bool hasPending_ = false;
};

void Encoder::run() {
    for (int32_t p = 0; p < n_ - 8; ++p) {
        uint32_t v = load32(in_ + p);
        Row& row = rows_[(((v & 0xFFFFFF) * 4161) >> 12) & hashMask_];
        Row old = row;
        row.position = {p, old.position[0], old.position[1], old.position[2]};
        row.value = {v, old.value[0], old.value[1], old.value[2]};
        if (p < litPos_) continue;

        Match best;
        bool found = false;
        for (int i = 0; i < 4; ++i) {
            found |= consider(p, v, old.position[i], old.value[i], false, best);
        }
        if (dPrev_ != 0) found |= consider(p, v, p - dPrev_, load32(in_ + p - dPrev_), true, best);

        if (!found) {
            if (p - litPos_ >= kLiteralBacklog) {
                if (hasPending_) {
                    emitMatch(pending_);
                    hasPending_ = false;
                } else {
                    emitLiterals(kMaxLargeLiteral);
                }
            }
        } else if (!hasPending_) {
            pending_ = best;
            hasPending_ = true;
        } else if (pending_.end <= best.start) {
            emitMatch(pending_);
            pending_ = best;
        } else {
            emitMatch(best.score > pending_.score ? best : pending_);
            hasPending_ = false;
        }
    }
    // A match still pending here is worth emitting (the reference drops it into the literals).
    if (hasPending_) emitMatch(pending_);
    emitLiterals(static_cast<size_t>(n_ - litPos_));
    // End of stream: 0x06 and 7 zero bytes.
    out_.insert(out_.end(), {0x06, 0, 0, 0, 0, 0, 0, 0});
}

// Measures the match at p against q (qv = the 4 bytes there) and keeps it in best if it scores
// higher, or as high but reaching more than a byte further. Returns whether it was kept.
bool Encoder::consider(int32_t p, uint32_t v, int32_t q, uint32_t qv, bool previous,
                       Match& best) const {
    int k = equalLowBytes(v, qv);
    if (k < 3) return false;
    int32_t d = p - q;
    if (d < 1 || d > static_cast<int32_t>(kMaxLzvnD)) return false;
    int32_t end = p + k;
    for (int last = k; last == 4 && end + 4 < n_;) {
        last = equalLowBytes(load32(in_ + end), load32(in_ + end - d));
        end += last;
    }
    int32_t start = p;
    while (q > 0 && start > litPos_ && in_[start - 1] == in_[q - 1]) {
        --start;
        --q;
    }
    int32_t m = end - start;
    int32_t score = previous ? m - 1 : d < kSmallDistanceLimit ? m - 2 : m - 3;
    if (score > best.score || (score == best.score && end > best.end + 1)) {
        best = {start, end, d, score};
        return true;
    }
    return false;
}

// Large-literal opcodes (0xE0, L - 16) while more than 15 literals remain; returns the rest.
size_t Encoder::putLargeLiterals(const uint8_t*& lit, size_t count) {
    while (count > 15) {
        size_t run = std::min(count, kMaxLargeLiteral);
        out_.push_back(0xE0);
        out_.push_back(static_cast<uint8_t>(run - 16));
        out_.insert(out_.end(), lit, lit + run);
        lit += run;
        count -= run;
    }
    return count;
}

void Encoder::putSmallLiteral(const uint8_t* lit, size_t count) {
    out_.push_back(static_cast<uint8_t>(0xE0 + count));
    out_.insert(out_.end(), lit, lit + count);
}

void Encoder::emitLiterals(size_t count) {
    const uint8_t* lit = in_ + litPos_;
    litPos_ += static_cast<int32_t>(count);
    count = putLargeLiterals(lit, count);
    if (count > 0) putSmallLiteral(lit, count);
}

void Encoder::emitMatch(const Match& match) {
    const uint8_t* lit = in_ + litPos_;
    size_t l = putLargeLiterals(lit, static_cast<size_t>(match.start - litPos_));
    size_t m = static_cast<size_t>(match.end - match.start);
    size_t d = static_cast<size_t>(match.d);
    // Up to 3 literals ride along in the match opcode; more go first on their own.
    if (l > 3) {
        putSmallLiteral(lit, l);
        lit += l;
        l = 0;
    }

    // The opcode carries L <= 3 and x = 3 + MMM match bytes, with MMM <= 7 - 2L.
    size_t x = std::min(m, 10 - 2 * l);
    m -= x;
    auto lmm = static_cast<uint8_t>((l << 6) | ((x - 3) << 3));
    if (d == static_cast<size_t>(dPrev_)) {
        out_.push_back(l == 0 ? static_cast<uint8_t>(0xF0 + x) : static_cast<uint8_t>(lmm | 6));
    } else if (d < static_cast<size_t>(kSmallDistanceLimit)) {
        // LLMMMDDD, then the low 8 bits of D.
        out_.push_back(static_cast<uint8_t>(lmm | (d >> 8)));
        out_.push_back(static_cast<uint8_t>(d));
    } else if (d >= static_cast<size_t>(kMediumDistanceLimit) || m == 0 ||
               x + m > kMaxMediumMatch) {
        // LLMMM111, then u16 D.
        out_.push_back(static_cast<uint8_t>(lmm | 7));
        out_.push_back(static_cast<uint8_t>(d));
        out_.push_back(static_cast<uint8_t>(d >> 8));
    } else {
        // 101LLMMM carrying the top 3 bits of M - 3, then u16 (D << 2 | low 2 bits of M - 3).
        size_t code = x + m - 3;
        m = 0;
        out_.push_back(static_cast<uint8_t>(0xA0 | (l << 3) | (code >> 2)));
        uint16_t w = static_cast<uint16_t>((d << 2) | (code & 3));
        out_.push_back(static_cast<uint8_t>(w));
        out_.push_back(static_cast<uint8_t>(w >> 8));
    }
    out_.insert(out_.end(), lit, lit + l);

    while (m > 15) {
        size_t run = std::min(m, kMaxLargeMatch);
        out_.push_back(0xF0);
        out_.push_back(static_cast<uint8_t>(run - 16));
        m -= run;
    }
    if (m > 0) out_.push_back(static_cast<uint8_t>(0xF0 + m));
    dPrev_ = match.d;
    litPos_ = match.end;
}

}  // namespace

bool encodeLzvnBlock(std::span<const uint8_t> input, std::vector<uint8_t>& out) {
    std::vector<uint8_t> payload;
    payload.reserve(input.size() + input.size() / 64 + 16);
    Encoder(input, payload).run();
    // Its 12-byte header against the raw block's 8.
    if (12 + payload.size() >= 8 + input.size()) return false;
    // Layout: magic, u32 n_raw_bytes, u32 n_payload_bytes, opcodes.
    size_t at = out.size();
    out.resize(at + 12);
    store32(out.data() + at, kMagicLzvn);
    store32(out.data() + at + 4, static_cast<uint32_t>(input.size()));
    store32(out.data() + at + 8, static_cast<uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    return true;
}

}  // namespace corvane::lzfse
