#include "base/version.h"

namespace corvane {

std::optional<std::string> versionString() {
#ifdef CORVANE_VERSION
    return std::string(CORVANE_VERSION);
#else
    return std::nullopt;
#endif
}

}  // namespace corvane
