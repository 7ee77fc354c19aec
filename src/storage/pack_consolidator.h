// PackConsolidator: keeps a repository's packs few and large (pack_consolidation.h) and its
// store free of packs nobody reads. A consolidation only adds: it saves its new packs, then
// switches the metadata to them in one save, moving the old ones to "retired"; readers of the
// state before keep finding them. Retired packs are emptied (their data freed) by a later save,
// once kRetiredPackGrace has passed. A process that dies at any point leaves the repository as it
// was or as it became, and at worst new pack records nothing names.
//
// Threads: consider() queues on the "pack_consolidation" thread, owned by the consolidator and
// stopped by its destructor, which makes a consolidation under way give up. consolidate() runs
// on the caller's thread. Consolidations of one repository in this process take turns with its
// pushes for the save only.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "base/queues.h"

namespace corvane {

class Backend;

// How long a retired pack's data stays for readers of the state before it was retired.
inline constexpr std::chrono::seconds kRetiredPackGrace = std::chrono::hours(1);

class PackConsolidator {
  public:
    explicit PackConsolidator(Backend& backend);
    ~PackConsolidator();
    PackConsolidator(const PackConsolidator&) = delete;
    PackConsolidator& operator=(const PackConsolidator&) = delete;

    // After a push: consolidates in the background when it is worth it (packs of version 1 or 2,
    // many small stored packs) and empties packs retired long enough ago. Failures are logged:
    // the next push tries again.
    void consider(const std::string& name, const std::string& owner);

    struct Outcome {
        std::size_t packsBefore = 0;
        std::size_t packsAfter = 0;
        std::size_t packsRetired = 0;
        std::size_t packsEmptied = 0;
    };
    // Consolidates now; with `everything`, all the packs into as few as their size allows.
    // Throws the store's and the fetcher's errors, Conflict when another consolidation retired
    // the same packs first.
    Outcome consolidate(const std::string& name, const std::string& owner, bool everything);

    // For tests: the grace retired packs get.
    void setGrace(std::chrono::seconds grace) { grace_ = grace; }

  private:
    Backend& backend_;
    std::atomic<bool> stopping_{false};
    std::atomic<std::chrono::seconds> grace_{kRetiredPackGrace};
    std::mutex mutex_;
    std::set<std::pair<std::string, std::string>> queued_;  // guarded by mutex_
    WorkQueue queue_{"pack_consolidation", 1};              // last: drained first
};

}  // namespace corvane
