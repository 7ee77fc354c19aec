// Collects the triples and literals of one LZFSE block and writes it as a bvx2 block.
// One instance per encode call; not shared between threads.
#pragma once

#include <cstdint>
#include <vector>

#include "lzfse/format.h"

namespace corvane::lzfse {

// One step of the parse: L literals, then M bytes copied from D bytes back (D >= 1 here; the
// block writer turns repeated distances into the repeat code).
struct Triple {
    uint32_t l;
    uint32_t m;
    uint32_t d;
};

class BlockWriter {
  public:
    BlockWriter();

    // Whether triples carrying `literalCount` literals in all still fit the block. The margins
    // (8 triples, 16 literals) are the reference encoder's, so our blocks end where its do.
    bool fits(size_t tripleCount, size_t literalCount) const {
        return triples_.size() + tripleCount + 8 <= kMaxMatches &&
               literals_.size() + literalCount + 16 <= kMaxLiterals;
    }

    // literals points at the triple's t.l literal bytes.
    void add(const Triple& t, const uint8_t* literals) {
        triples_.push_back(t);
        literals_.insert(literals_.end(), literals, literals + t.l);
    }

    bool empty() const { return triples_.empty() && literals_.empty(); }

    // Appends the collected block to out as bvx2 and starts an empty one.
    void flush(std::vector<uint8_t>& out);

  private:
    std::vector<Triple> triples_;
    std::vector<uint8_t> literals_;
};

}  // namespace corvane::lzfse
