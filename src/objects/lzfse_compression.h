// Whole-buffer LZFSE compression of what the system stores in the cloud (metadata documents,
// version-1 pack indexes). Stateless; any thread.
#pragma once

#include "base/bytes.h"

namespace corvane {

// Fails with "Compression error".
Bytes lzfseCompress(ByteView input);
// Fails with "Decompression error" on any malformed or truncated stream.
Bytes lzfseDecompress(ByteView input);

}  // namespace corvane
