// The picture a share carries beside its title: the application's icon, 128 pixels square, as
// PNG bytes built into the program.
#pragma once

#include "base/bytes.h"

namespace corvane {

ByteView shareThumbnail();

}  // namespace corvane
