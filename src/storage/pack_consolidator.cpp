#include "storage/pack_consolidator.h"

#include <algorithm>

#include "base/error.h"
#include "base/trace.h"
#include "storage/backend.h"
#include "storage/pack_consolidation.h"

namespace corvane {

namespace {

// A consolidation that keeps meeting saves from elsewhere gives up until the next push.
constexpr int kSaveAttempts = 5;

std::int64_t secondsNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

PackConsolidator::PackConsolidator(Backend& backend) : backend_(backend) {}

PackConsolidator::~PackConsolidator() {
    stopping_ = true;
}

void PackConsolidator::consider(const std::string& name, const std::string& owner) {
    {
        std::lock_guard lock(mutex_);
        if (!queued_.insert({name, owner}).second) return;  // one look covers both pushes
    }
    queue_.async([this, name, owner] {
        {
            std::lock_guard lock(mutex_);
            queued_.erase({name, owner});
        }
        if (stopping_) return;
        try {
            consolidate(name, owner, false);
        } catch (const std::exception& error) {
            trace(TraceModule::error, "consolidating " + name + ": " + error.what());
        }
    });
}

PackConsolidator::Outcome PackConsolidator::consolidate(const std::string& name,
                                                        const std::string& owner, bool everything) {
    auto repository = backend_.fetchRepository(name, owner);
    Outcome outcome;
    outcome.packsBefore = repository->content()->packs.size();
    auto packs = packsToConsolidate(*repository->content(), everything);
    std::map<std::string, std::int64_t> sizes;
    if (!packs.empty()) {
        trace(TraceModule::request,
              "consolidating " + std::to_string(packs.size()) + " packs of " + name);
        backend_.fetcher().fetchStoredPacks(*repository);
        auto built = buildConsolidatedPacks(backend_.fetcher(), *repository, packs, stopping_);
        if (stopping_) throw Error("Pack consolidation stopped");
        sizes = backend_.saveStoredPacks(*repository, built);
    }

    auto turn = backend_.lockPushes(*repository);
    for (int attempt = 1;; ++attempt) {
        Repository::ContentUpdate update(*repository);
        RepositoryContent& content = update.content();
        const std::int64_t now = secondsNow();
        for (const auto& pack : packs) {
            // Another consolidation retired it first; what this one built is nobody's.
            if (!content.packs.contains(pack))
                throw Conflict("Pack " + pack + " was consolidated elsewhere");
        }
        for (const auto& pack : packs) {
            content.packs.erase(pack);
            content.retiredPacks[pack] = now;
        }
        for (const auto& [pack, size] : sizes) {
            content.packs[pack] = size;
            content.retiredPacks.erase(pack);
        }
        // Packs retired by this save get their grace whatever it is.
        std::vector<std::string> expired;
        for (const auto& [pack, time] : content.retiredPacks) {
            if (time <= now - grace_.load().count() &&
                std::find(packs.begin(), packs.end(), pack) == packs.end())
                expired.push_back(pack);
        }
        auto emptied = backend_.emptiedPackRecords(*repository, expired);
        for (const auto& pack : expired)
            content.retiredPacks.erase(pack);
        if (packs.empty() && expired.empty()) return outcome;

        try {
            backend_.saveRepository(repository, update, emptied);
            outcome.packsAfter = repository->content()->packs.size();
            outcome.packsRetired = packs.size();
            outcome.packsEmptied = expired.size();
            trace(TraceModule::response, name + ": " + std::to_string(packs.size()) +
                                             " packs retired, " + std::to_string(sizes.size()) +
                                             " added, " + std::to_string(expired.size()) +
                                             " emptied");
            return outcome;
        } catch (const Conflict&) {
            if (attempt == kSaveAttempts) throw;
        }
        repository = backend_.fetchRepository(name, owner);
    }
}

}  // namespace corvane
