// Bit streams of LZFSE payloads: written forward from bit 0 of the first byte, read backward
// from the end. One instance per stream; not shared between threads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lzfse/byte_io.h"
#include "lzfse/lzfse.h"

namespace corvane::lzfse {

// Reads fields back to front. The accumulator holds the 8 bytes that end at ptr_; its low count_
// bits are the unread ones. A read is unchecked: count_ may go negative on a corrupt stream, and
// callers test exhausted() once per group of reads (the values read meanwhile are masked, so
// they stay in range). Payloads shorter than 8 bytes are read from a zero-padded copy in the
// caller's smallCopy, which must outlive the reader.
class BackwardBitReader {
  public:
    // bits is minus the number of zero padding bits in the last byte (-7..0).
    BackwardBitReader(const uint8_t* begin, size_t size, int bits,
                      std::array<uint8_t, 8>& smallCopy) {
        if (bits < -7 || bits > 0) throw FormatError("lzfse: bad payload bit count");
        if (size == 0) {
            if (bits != 0) throw FormatError("lzfse: bad payload bit count");
        } else if (bits < 0 && (begin[size - 1] >> (8 + bits)) != 0) {
            throw FormatError("lzfse: nonzero payload padding bits");
        }
        if (size >= 8) {
            floor_ = begin + 8;
            ptr_ = begin + size;
            count_ = 64 + bits;
        } else {
            smallCopy.fill(0);
            if (size > 0) std::memcpy(smallCopy.data(), begin, size);
            floor_ = smallCopy.data() + 8;
            ptr_ = floor_;
            count_ = static_cast<int>(8 * size) + bits;
        }
        accum_ = load64(ptr_ - 8);
    }

    // Loads whole bytes until at least 57 bits are unread, or the payload start is reached.
    void refill() {
        ptrdiff_t k = (64 - count_) >> 3;
        if (k > ptr_ - floor_) k = ptr_ - floor_;
        ptr_ -= k;
        count_ += static_cast<int>(8 * k);
        accum_ = load64(ptr_ - 8);
    }

    // n <= 32. The shift count is masked so a corrupt stream cannot cause undefined behaviour.
    uint32_t read(int n) {
        count_ -= n;
        return static_cast<uint32_t>((accum_ >> (count_ & 63)) & ((uint64_t{1} << n) - 1));
    }

    // True once a read went past the payload start.
    bool exhausted() const { return count_ < 0; }

  private:
    uint64_t accum_ = 0;
    int count_ = 0;
    const uint8_t* ptr_ = nullptr;
    const uint8_t* floor_ = nullptr;
};

// Writes fields front to back into caller-provided memory, which must have 8 writable bytes past
// the last byte the stream will occupy. Callers flush often enough that at most 56 bits wait.
class ForwardBitWriter {
  public:
    explicit ForwardBitWriter(uint8_t* out) : start_(out), out_(out) {}

    // value < 2^n.
    void write(uint64_t value, int n) {
        accum_ |= value << count_;
        count_ += n;
    }

    void flush() {
        store64(out_, accum_);
        int bytes = count_ >> 3;
        out_ += bytes;
        accum_ >>= 8 * bytes;  // at most 7 bytes, as at most 63 bits wait
        count_ &= 7;
    }

    // Flushes the partial last byte; returns the stream size in bytes.
    size_t finish() {
        flush();
        return static_cast<size_t>(out_ - start_) + (count_ > 0 ? 1 : 0);
    }

    // After finish: minus the number of zero padding bits in the last byte.
    int bits() const { return count_ > 0 ? count_ - 8 : 0; }

  private:
    uint8_t* start_;
    uint8_t* out_;
    uint64_t accum_ = 0;
    int count_ = 0;
};

}  // namespace corvane::lzfse
