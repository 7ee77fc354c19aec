// Whole-file reads and atomic writes for the object cache and the working files.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <filesystem>

#include "base/bytes.h"

namespace corvane {

// Every file Corvane writes into its cache: readable by its owner only, whatever the folder.
inline constexpr mode_t kPrivateFileMode = 0600;

// Fails with the system's error text.
Bytes readFile(const std::filesystem::path& path);

// Writes to a temporary file beside the target, then renames it over the target, so readers see
// the old file or the whole new one.
void writeFileAtomically(const std::filesystem::path& path, ByteView data);

// Gives target the contents of source unless target already exists (then the existing file
// stays): a hard link where the file system allows one and the source is private, else a private
// copy that lands under a temporary name first, so a target is never seen half-written. True
// when it placed the file.
bool copyFileIfAbsent(const std::filesystem::path& source, const std::filesystem::path& target);

// Whether a pack's use is to be recorded in its file time now: at most once an hour for each
// `lastUse` (seconds since the epoch, updated here), so that reads do not write on every call.
bool useNoteDue(std::atomic<std::int64_t>& lastUse);

}  // namespace corvane
