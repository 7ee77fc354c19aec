// Ref-delta application: rebuilds an object from its base and git's delta instructions.
// Pure function, any thread.
#pragma once

#include "objects/object.h"

namespace corvane {

// The object the delta rebuilds from base, of the base's type. The caller finds the base whose id
// is delta.source. Fails with "Invalid ref_delta" on any malformed or inconsistent delta, and on a
// result larger than 4 GiB (the largest object a pack may carry).
Object apply(const Object& base, const RefDelta& delta);

}  // namespace corvane
