// Decodes arbitrary text as a repository metadata document, version 1 or 2 (first byte). Any
// malformed document must end in an Error.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/error.h"
#include "storage/repository_meta.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::string_view json(reinterpret_cast<const char*>(data + 1), size - 1);
    try {
        corvane::decodeRepositoryMetaJson(json, data[0] % 2 == 0 ? 2 : 1);
    } catch (const corvane::Error&) {
    }
    return 0;
}
