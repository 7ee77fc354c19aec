// Applies arbitrary delta instructions to an arbitrary base: the first byte is the base's length,
// the base follows, the rest is the delta. Every bound must hold and end in "Invalid ref_delta".
// The same bytes, read as a base and a target, go through the encoder: whatever delta it writes
// must rebuild the target exactly.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "base/error.h"
#include "objects/delta.h"
#include "objects/delta_encoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::size_t baseLength = std::min<std::size_t>(data[0], size - 1);
    corvane::Object base(corvane::ObjectType::blob,
                         corvane::Bytes(data + 1, data + 1 + baseLength));
    corvane::RefDelta delta{base.id(), corvane::Bytes(data + 1 + baseLength, data + size)};
    try {
        corvane::apply(base, delta);
    } catch (const corvane::Error&) {
    }
    if (auto encoded = corvane::encodeDelta(base.data(), delta.data, size * 2 + 64)) {
        if (corvane::apply(base, {base.id(), *encoded}).data() != delta.data) std::abort();
    }
    return 0;
}
