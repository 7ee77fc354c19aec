// The application's short version string, fixed by the build.
#pragma once

#include <optional>
#include <string>

namespace corvane {

// Absent when the build did not set one.
std::optional<std::string> versionString();

// Reverse-DNS identifier of the application (log subsystem, desktop entry).
inline constexpr const char* kBundleIdentifier = "org.corvane.Corvane";

}  // namespace corvane
