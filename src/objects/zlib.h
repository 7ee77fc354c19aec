// Whole-buffer zlib (RFC 1950) compression of git object contents. Stateless; any thread.
#pragma once

#include "base/bytes.h"

namespace corvane {

// Compresses at zlib's default level. Fails with "Deflate error: init" or
// "Deflate error: " + zlib's message.
Bytes zlibDeflate(ByteView input);

// Inflates a zlib stream. A stream cut short yields what it holds so far; bytes after the end of
// the stream are ignored. Fails with "Inflate error: init" or "Inflate error: " + zlib's message.
Bytes zlibInflate(ByteView input);

}  // namespace corvane
