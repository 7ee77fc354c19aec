#include "objects/delta_encoder.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace corvane {

namespace {

// The base is indexed at every kBlock-th position; a match is at least one block long.
constexpr std::size_t kBlock = 16;
// Candidates looked at per position: enough for repeated text, bounded for pathological input.
constexpr int kMaxCandidates = 16;
// Literal bytes per insert instruction, and bytes per copy instruction.
constexpr std::size_t kMaxInsert = 127;
constexpr std::size_t kMaxCopy = 0xffffff;
// Offsets of a copy instruction are 32 bits.
constexpr std::size_t kMaxBase = 0xffffffffu;

constexpr std::uint32_t kMultiplier = 0x01000193;  // FNV's prime: spreads bytes over 32 bits

// A polynomial hash of one block that rolls a byte at a time.
class RollingHash {
  public:
    RollingHash() {
        for (std::size_t i = 1; i < kBlock; ++i)
            outFactor_ *= kMultiplier;
    }
    std::uint32_t of(const std::uint8_t* block) const {
        std::uint32_t hash = 0;
        for (std::size_t i = 0; i < kBlock; ++i)
            hash = hash * kMultiplier + block[i] + 1;
        return hash;
    }
    std::uint32_t roll(std::uint32_t hash, std::uint8_t out, std::uint8_t in) const {
        return (hash - (out + 1u) * outFactor_) * kMultiplier + in + 1;
    }

  private:
    std::uint32_t outFactor_ = 1;
};

void appendSize(Bytes& out, std::uint64_t size) {
    while (size >= 0x80) {
        out.push_back(static_cast<std::uint8_t>(size | 0x80));
        size >>= 7;
    }
    out.push_back(static_cast<std::uint8_t>(size));
}

class DeltaWriter {
  public:
    DeltaWriter(ByteView target, std::size_t limit) : target_(target), limit_(limit) {}

    // Literal bytes wait until a copy or the end, so that runs share instructions.
    void literal() { ++pending_; }
    std::size_t pending() const { return pending_; }
    void unliteral(std::size_t count) { pending_ -= count; }

    bool copy(std::size_t position, std::size_t offset, std::size_t length) {
        if (!flush(position)) return false;
        while (length > 0) {
            std::size_t part = std::min(length, kMaxCopy);
            std::uint8_t op = 0x80;
            std::size_t opAt = out_.size();
            out_.push_back(0);
            for (int i = 0; i < 4; ++i) {
                if (auto byte = static_cast<std::uint8_t>(offset >> (8 * i))) {
                    op |= static_cast<std::uint8_t>(1u << i);
                    out_.push_back(byte);
                }
            }
            for (int i = 0; i < 3; ++i) {
                if (auto byte = static_cast<std::uint8_t>(part >> (8 * i))) {
                    op |= static_cast<std::uint8_t>(0x10u << i);
                    out_.push_back(byte);
                }
            }
            out_[opAt] = op;
            offset += part;
            length -= part;
        }
        return out_.size() <= limit_;
    }

    // Writes the literals that end at `position`.
    bool flush(std::size_t position) {
        std::size_t from = position - pending_;
        while (pending_ > 0) {
            std::size_t part = std::min(pending_, kMaxInsert);
            out_.push_back(static_cast<std::uint8_t>(part));
            out_.insert(out_.end(), target_.begin() + static_cast<std::ptrdiff_t>(from),
                        target_.begin() + static_cast<std::ptrdiff_t>(from + part));
            from += part;
            pending_ -= part;
        }
        return out_.size() <= limit_;
    }

    Bytes& bytes() { return out_; }

  private:
    ByteView target_;
    std::size_t limit_;
    Bytes out_;
    std::size_t pending_ = 0;
};

}  // namespace

std::optional<Bytes> encodeDelta(ByteView base, ByteView target, std::size_t limit) {
    // An empty target's delta would be shorter than the four bytes git takes for a delta.
    if (base.size() < kBlock || base.size() > kMaxBase || target.empty()) return std::nullopt;
    RollingHash hasher;

    // Each block of the base in a table of chains: heads by hash bucket, then the previous
    // block of the same bucket. Later blocks come first, so ties favour nearer data.
    std::size_t blocks = base.size() / kBlock;
    std::size_t buckets = 1;
    while (buckets < blocks)
        buckets <<= 1;
    const std::uint32_t mask = static_cast<std::uint32_t>(buckets - 1);
    constexpr std::uint32_t kNone = 0xffffffffu;
    std::vector<std::uint32_t> head(buckets, kNone);
    std::vector<std::uint32_t> next(blocks, kNone);
    auto bucketOf = [&](std::uint32_t hash) { return (hash ^ (hash >> 15)) & mask; };
    std::uint32_t previous = 0;
    for (std::size_t block = 0; block < blocks; ++block) {
        const std::uint8_t* bytes = base.data() + block * kBlock;
        std::uint32_t blockHash = hasher.of(bytes);
        // Of a run of equal blocks only the first is kept: it offers the longest match, and a
        // run of one byte would otherwise fill a chain with blocks near the run's end.
        bool repeat =
            block > 0 && blockHash == previous && std::equal(bytes, bytes + kBlock, bytes - kBlock);
        previous = blockHash;
        if (repeat) continue;
        auto bucket = bucketOf(blockHash);
        next[block] = head[bucket];
        head[bucket] = static_cast<std::uint32_t>(block);
    }

    DeltaWriter writer(target, limit);
    Bytes& out = writer.bytes();
    appendSize(out, base.size());
    appendSize(out, target.size());

    std::size_t position = 0;
    std::uint32_t hash = target.size() >= kBlock ? hasher.of(target.data()) : 0;
    while (position + kBlock <= target.size()) {
        std::size_t bestOffset = 0;
        std::size_t bestLength = 0;
        int looked = 0;
        for (auto block = head[bucketOf(hash)]; block != kNone && looked < kMaxCandidates;
             block = next[block], ++looked) {
            std::size_t offset = std::size_t{block} * kBlock;
            std::size_t length = 0;
            std::size_t most = std::min(base.size() - offset, target.size() - position);
            while (length < most && base[offset + length] == target[position + length])
                ++length;
            if (length > bestLength) {
                bestLength = length;
                bestOffset = offset;
            }
        }
        if (bestLength < kBlock) {
            writer.literal();
            if (position + kBlock < target.size())
                hash = hasher.roll(hash, target[position], target[position + kBlock]);
            ++position;
            continue;
        }
        // A match often starts before the block it was found on: take back literals it covers.
        std::size_t back = 0;
        while (back < writer.pending() && back < bestOffset &&
               base[bestOffset - back - 1] == target[position - back - 1])
            ++back;
        writer.unliteral(back);
        if (!writer.copy(position - back, bestOffset - back, bestLength + back))
            return std::nullopt;
        position += bestLength;
        if (position + kBlock <= target.size()) hash = hasher.of(target.data() + position);
    }
    for (; position < target.size(); ++position)
        writer.literal();
    if (!writer.flush(target.size())) return std::nullopt;
    return std::move(out);
}

}  // namespace corvane
