// ObjectIdTable: the object ids that tree summaries link to, each held once per process and named
// by a 4-byte number. A history's trees hold far more links than it has objects (11 million links
// to 300k ids in one), so a link costs 4 bytes instead of 20.
//
// Numbers are never reused and ids never removed: the table grows with the distinct ids the
// process has met (about 28 bytes each), not with the links to them. Numbers are the same for
// every repository, so summaries compare and move between contents as they are.
//
// Thread safety: number() takes a lock. digest() takes none; it is safe for any number handed
// out before the caller received it (through whatever published the summary that holds it).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "objects/sha1.h"

namespace corvane {

class ObjectIdTable {
  public:
    using Number = std::uint32_t;

    // The table every summary of this process uses.
    static ObjectIdTable& process();

    // The id's number, handing out the next one for an id not met before.
    Number number(const Digest& digest);
    // The numbers of several ids, appended to `out` in order, under one lock: a tree's links
    // are numbered together.
    void number(std::span<const Digest> digests, std::vector<Number>& out);
    const Digest& digest(Number number) const {
        return chunks_[number >> kChunkBits][number & (kChunkSize - 1)];
    }
    std::size_t size() const;

  private:
    static constexpr unsigned kChunkBits = 16;
    static constexpr std::size_t kChunkSize = std::size_t{1} << kChunkBits;
    static constexpr std::size_t kChunks = std::size_t{1} << (32 - kChunkBits);

    void grow();
    Number numberLocked(const Digest& digest);  // mutex_ held

    mutable std::mutex mutex_;
    // Digests by number, in chunks that never move once allocated: readers need no lock.
    std::array<std::unique_ptr<Digest[]>, kChunks> chunks_;
    std::size_t size_ = 0;
    // Open addressing over numbers + 1 (0 is a free slot), at most half full.
    std::vector<Number> slots_;
};

}  // namespace corvane
