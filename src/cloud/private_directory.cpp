#include "cloud/private_directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/error.h"
#include "cloud/error_codes.h"

namespace corvane::cloud {

void createPrivateDirectories(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> missing;
    std::error_code ignored;
    for (auto path = directory; !path.empty() && !std::filesystem::exists(path, ignored);
         path = path.parent_path()) {
        missing.push_back(path);
        if (path == path.parent_path()) break;
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        if (::mkdir(it->c_str(), 0700) == 0 || errno == EEXIST) continue;
        std::string message =
            "Cannot create the folder " + it->string() + ": " + std::strerror(errno);
        throw CloudError(kInternalError, message, message);
    }
}

}  // namespace corvane::cloud
