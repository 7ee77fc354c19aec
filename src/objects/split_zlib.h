// Two-part zlib streams: a head and a body compressed as one ordinary zlib stream, with a full
// flush between them. After a full flush deflate refers to nothing before it, so the body's
// deflate blocks stand alone: under a fresh zlib header and the body's Adler-32 they are the zlib
// stream of the body by itself. The object cache writes its files this way (head = the loose
// object header, body = the object's data), so a pack entry reuses the file's compressed bytes
// instead of compressing the object again. Any zlib reader still sees one stream of head and
// body. Stateless; any thread.
#pragma once

#include <optional>

#include "base/bytes.h"

namespace corvane {

// Compresses head then body at zlib's fastest level, with a full flush after head. Fails with
// "Deflate error: init" or "Deflate error: " + zlib's message.
Bytes zlibDeflateSplit(ByteView head, ByteView body);

struct SplitStream {
    Bytes head;
    Bytes body;
    Bytes bodyStream;  // the zlib stream of body alone
};

// Inflates a stream made by zlibDeflateSplit as its two parts. nullopt for any stream that does
// not split that way (made by another writer, or damaged): the caller then inflates it whole.
std::optional<SplitStream> zlibInflateSplit(ByteView stream);

}  // namespace corvane
