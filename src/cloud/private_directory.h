// Folders that hold a person's cloud data: created missing parents first, each with mode 0700,
// so nothing of the store is readable by other local users. Safe on any thread.
#pragma once

#include <filesystem>

namespace corvane::cloud {

// Creates the folder and its missing parents (mode 0700); existing ones are left as they are.
// Throws CloudError (code 1, with the system's reason) when a folder cannot be made.
void createPrivateDirectories(const std::filesystem::path& directory);

}  // namespace corvane::cloud
