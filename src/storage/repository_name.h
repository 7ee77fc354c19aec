// The one rule for a repository's name, wherever a name arrives: typed in the window or on the
// command line, or sent in a git client's request. A name is one line of text that is no path.
//
// Threads: any (a pure function).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// Bytes, not characters: file systems and the store's keys count bytes.
inline constexpr std::size_t kMaxRepositoryNameBytes = 255;

// What is wrong with `name`, as a sentence to show the person who chose it ("Name can not
// contain /"); nothing when the name may be used. Callers trim typed text first.
std::optional<std::string> repositoryNameProblem(std::string_view name);

}  // namespace corvane
