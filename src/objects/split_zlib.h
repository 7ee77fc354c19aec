// Two-part zlib streams: a head and a body in one ordinary zlib stream, where the body's deflate
// blocks refer to nothing before them, so that under a fresh zlib header and the body's Adler-32
// they are the zlib stream of the body by itself. The object cache writes its files this way
// (head = the loose object header, body = the object's data), so a pack entry reuses the file's
// compressed bytes instead of compressing the object again. Any zlib reader still sees one stream
// of head and body. Stateless; any thread.
//
// Written: the head as one stored block, then the body's blocks. Also read: the head compressed
// and ended by a full flush, as earlier releases wrote.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>

#include "base/bytes.h"

namespace corvane {

// Compresses body at the fastest level after head (at most 65535 bytes), stored. Fails with
// "Deflate error: " and what went wrong.
Bytes zlibDeflateSplit(ByteView head, ByteView body);

struct SplitStream {
    Bytes head;
    Bytes body;
    Bytes bodyStream;  // the zlib stream of body alone
};

// The body's length as a head declares it; nullopt when the head declares none.
using SplitBodySize = std::function<std::optional<std::size_t>(ByteView head)>;

// Inflates a stream made by zlibDeflateSplit as its two parts, checking its Adler-32. nullopt for
// any stream that does not split that way, whose body is not the declared length, or that is
// damaged: the caller then inflates it whole.
std::optional<SplitStream> zlibInflateSplit(ByteView stream, const SplitBodySize& bodySize);

}  // namespace corvane
