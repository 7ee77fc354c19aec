// Capability: the protocol capabilities a client may request, with their exact wire names.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace corvane {

enum class Capability {
    allowReachableSha1InWant,
    allowTipSha1InWant,
    atomic,
    deepenNot,
    deepenRelative,
    deepenSince,
    deleteRefs,
    filter,
    includeTag,
    quiet,
    noProgress,
    ofsDelta,
    reportStatus,
    shallow,
    sideBand,
    sideBand64k,
    thinPack,
};

using Capabilities = std::set<Capability>;

std::string_view capabilityName(Capability capability);

// Exact, case-sensitive match against the wire names.
std::optional<Capability> capabilityFromName(std::string_view name);

// The known capabilities among space-separated words; unknown words (agent=..., foo) are ignored.
Capabilities parseCapabilities(std::string_view words);

// "agent=Corvane/<version>", or "agent=Corvane" when the build has no version.
const std::string& agentCapability();

}  // namespace corvane
