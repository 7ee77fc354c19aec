// Pack consolidation: many small packs made into few large ones, as `git gc` does. Whatever the
// chosen packs hold goes into new stored packs: deltas as they are stored, whole objects as deltas
// of objects they resemble where that saves at least half, bases always before their deltas.
// Packs of version 1 and 2 are converted the same way. The new packs are placed in the cache;
// PackConsolidator saves them and switches the metadata over.
//
// Functions run on the caller's thread; the fetcher and the store are thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "storage/stored_pack_cache.h"
#include "storage/summaries.h"

namespace corvane {

class ObjectFetcher;
class Repository;

// Small stored packs, from pushes of a few commits each, are consolidated once there are this
// many of them: each costs a cold clone one more download.
inline constexpr std::size_t kConsolidateAt = 8;
// Stored packs of this size or more count as consolidated already.
inline constexpr std::uint64_t kSmallStoredPack = 32ull << 20;
// New deltas keep every chain at most this deep (git's default), so that no object costs more
// than this many inflations to read.
inline constexpr int kMaxConsolidatedDepth = 50;
// Whole objects are compared with this many similar ones before them (git's default window).
inline constexpr std::size_t kDeltaWindow = 10;
// Objects larger than this are kept whole: comparing them costs more than it saves.
inline constexpr std::uint64_t kMaxDeltaObject = 32ull << 20;

// The packs a consolidation takes in: none when there is nothing worth doing. Without
// `everything`, every pack of version 1 or 2 (their objects are whole) and, once there are
// kConsolidateAt small stored packs, all the small ones. With it (an explicit request), every
// pack, unless the repository is one stored pack already.
std::vector<std::string> packsToConsolidate(const RepositoryContent& content, bool everything);

// Builds stored packs holding every object of `packs`, in the cache; the repository's stored
// packs must be in the cache already (ObjectFetcher::fetchStoredPacks). An object of a pack of
// version 1 or 2 that another stored pack holds is left to that pack. Fails with the fetcher's
// errors when an object cannot be read, and with "Pack consolidation stopped" once `stopping`
// is set; the packs already placed then stay in the cache until they expire.
std::vector<std::shared_ptr<const CachedStoredPack>> buildConsolidatedPacks(
    ObjectFetcher& fetcher, const Repository& repository, const std::vector<std::string>& packs,
    const std::atomic<bool>& stopping);

}  // namespace corvane
