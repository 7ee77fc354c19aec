// Whole-buffer zlib (RFC 1950) and raw deflate (RFC 1951) compression of git object contents.
// Stateless apart from a compressor and decompressor kept per thread; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/bytes.h"

namespace corvane {

// Compresses at the fastest level; empty for empty input. Fails with "Deflate error: init" or
// "Deflate error: output too small".
Bytes zlibDeflate(ByteView input);

// Inflates a zlib stream. A stream cut short yields what it holds so far; bytes after the end of
// the stream are ignored. Fails with "Inflate error: init" or "Inflate error: " + zlib's message.
Bytes zlibInflate(ByteView input);

// Appends the raw deflate blocks of input, compressed at the fastest level; fails as zlibDeflate.
void appendRawDeflate(Bytes& output, ByteView input);
// Inflates raw deflate blocks that make exactly `size` bytes and end exactly at the end of the
// input; nullopt for anything else.
std::optional<Bytes> rawInflateExactly(ByteView input, std::size_t size);

std::uint32_t adler32Of(ByteView data, std::uint32_t seed = 1);
// The CRC-32 (zlib's, as git's pack indexes keep it) of the bytes.
std::uint32_t crc32Of(ByteView data);
// The Adler-32 of two pieces joined, from each piece's own.
std::uint32_t adler32Combine(std::uint32_t first, std::uint32_t second, std::size_t secondLength);

}  // namespace corvane
