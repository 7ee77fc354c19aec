// Decodes arbitrary text as a repository metadata document, version 1 or 2 (first byte). Any
// malformed document must end in an Error; a document that decodes reads back the same when
// written again, whole or cut into parts of a few hundred bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/error.h"
#include "objects/lzfse_compression.h"
#include "storage/incremental_meta.h"
#include "storage/repository_meta.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::string_view json(reinterpret_cast<const char*>(data + 1), size - 1);
    corvane::RepositoryContent content;
    try {
        content = corvane::decodeRepositoryMetaJson(json, data[0] % 2 == 0 ? 2 : 1);
    } catch (const corvane::Error&) {
        return 0;
    }
    if (corvane::decodeRepositoryMeta(corvane::encodeRepositoryMeta(content), 2) != content)
        std::abort();
    corvane::RepositoryContent fromParts;
    corvane::encodeRepositoryMetaParts(content, 256, [&](const corvane::Bytes& part) {
        corvane::applyIncrement(corvane::decodeRepositoryMeta(part, 2), fromParts, true);
    });
    if (fromParts != content) std::abort();
    return 0;
}
