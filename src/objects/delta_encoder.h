// Delta encoding: git's delta instructions that rebuild one object's data from another's, for
// objects stored whole that another object resembles. Pure function, any thread.
#pragma once

#include <cstddef>
#include <optional>

#include "base/bytes.h"

namespace corvane {

// The delta (apply() in delta.h reads it) that rebuilds `target` from `base`, or none when it
// would be larger than `limit` bytes: the caller keeps the object whole then. Matches are found
// on 16-byte blocks of the base, so bases shorter than that give none; so does an empty target.
std::optional<Bytes> encodeDelta(ByteView base, ByteView target, std::size_t limit);

}  // namespace corvane
