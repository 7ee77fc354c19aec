// The decoder's output buffer and its copy primitives. The buffer keeps slack past the bytes
// produced so copies can move whole 16-byte chunks without per-byte bounds checks. One per
// decode call; not shared between threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace corvane::lzfse {

// Writable bytes that must exist past any copy's end for the chunked copies below.
inline constexpr size_t kCopySlack = 32;

class DecodeOutput {
  public:
    explicit DecodeOutput(size_t initialCapacity) { buffer_.resize(initialCapacity + kCopySlack); }

    size_t size() const { return size_; }
    uint8_t* data() { return buffer_.data(); }

    // Bytes that fit (with slack behind them) before the buffer must grow.
    size_t capacity() const { return buffer_.size() - kCopySlack; }

    // Makes room for n more bytes. Callers grow as they really produce bytes, never by a size
    // a block merely declares.
    void reserve(size_t n) {
        if (n <= capacity() - size_) return;
        size_t wanted = std::max(size_ + n, capacity() + capacity() / 2);
        buffer_.resize(wanted + kCopySlack);
    }

    void append(const uint8_t* bytes, size_t n) {
        reserve(n);
        if (n > 0) std::memcpy(buffer_.data() + size_, bytes, n);
        size_ += n;
    }

    void setSize(size_t size) { size_ = size; }

    std::vector<uint8_t> take() {
        buffer_.resize(size_);
        return std::move(buffer_);
    }

  private:
    std::vector<uint8_t> buffer_;
    size_t size_ = 0;
};

// Copies n bytes in 16-byte chunks: may read up to 15 bytes past src + n and write as far past
// dst + n. The ranges must not overlap within a chunk.
inline void copyChunks(uint8_t* dst, const uint8_t* src, size_t n) {
    uint8_t* end = dst + n;
    do {
        std::memcpy(dst, src, 16);
        dst += 16;
        src += 16;
    } while (dst < end);
}

// Copies an m-byte match from d bytes back (d >= 1, may overlap as a forward byte copy would).
// Writes up to 15 bytes past dst + m.
inline void copyMatch(uint8_t* dst, size_t d, size_t m) {
    if (d >= 16) {
        copyChunks(dst, dst - d, m);
        return;
    }
    // Short distance: any multiple of d is also a period of the output, so lay down the first
    // d2 - d bytes one by one, then copy chunks from d2 >= 16 back.
    size_t d2 = d * ((16 + d - 1) / d);
    size_t head = d2 - d;
    const uint8_t* src = dst - d;
    for (size_t i = 0; i < head; ++i) {
        dst[i] = src[i];
    }
    for (size_t i = head; i < m; i += 16) {
        std::memcpy(dst + i, dst + i - d2, 16);
    }
}

}  // namespace corvane::lzfse
