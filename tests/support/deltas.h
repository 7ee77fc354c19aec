// Git delta instructions for tests: a delta that rebuilds one object from another, and stored
// packs built from objects and such deltas.
#pragma once

#include <algorithm>

#include "objects/object.h"
#include "objects/sha1.h"
#include "objects/zlib.h"
#include "storage/stored_pack.h"

namespace corvane::testing {

inline void appendDeltaSize(Bytes& out, std::uint64_t size) {
    do {
        auto byte = static_cast<std::uint8_t>(size & 0x7f);
        size >>= 7;
        out.push_back(size ? byte | 0x80 : byte);
    } while (size);
}

// Git's delta instructions that make `result` from `base`: a copy of their common start, then
// the rest inserted.
inline Bytes makeDelta(const Object& base, const Object& result) {
    Bytes delta;
    appendDeltaSize(delta, base.data().size());
    appendDeltaSize(delta, result.data().size());
    std::size_t common = 0;
    while (common < std::min<std::size_t>({base.data().size(), result.data().size(), 0xffff}) &&
           base.data()[common] == result.data()[common])
        ++common;
    if (common > 0) {
        delta.push_back(0x80 | 0x10 | 0x20);  // offset 0, two size bytes
        delta.push_back(static_cast<std::uint8_t>(common & 0xff));
        delta.push_back(static_cast<std::uint8_t>(common >> 8));
    }
    for (std::size_t at = common; at < result.data().size(); at += 127) {
        auto length = std::min<std::size_t>(127, result.data().size() - at);
        delta.push_back(static_cast<std::uint8_t>(length));
        delta.insert(delta.end(), result.data().begin() + static_cast<std::ptrdiff_t>(at),
                     result.data().begin() + static_cast<std::ptrdiff_t>(at + length));
    }
    return delta;
}

inline void addWhole(StoredPackBuilder& builder, const Object& object) {
    builder.addWhole(digestOfId(object.id()), object.type(), object.data().size(),
                     zlibDeflate(object.data()));
}

inline void addDelta(StoredPackBuilder& builder, const Object& object, const Object& base) {
    Bytes delta = makeDelta(base, object);
    builder.addDelta(digestOfId(object.id()), digestOfId(base.id()), delta.size(),
                     zlibDeflate(delta));
}

}  // namespace corvane::testing
