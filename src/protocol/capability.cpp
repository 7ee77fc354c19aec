#include "protocol/capability.h"

#include "base/version.h"

namespace corvane {

namespace {

constexpr Capability kAll[] = {Capability::allowReachableSha1InWant,
                               Capability::allowTipSha1InWant,
                               Capability::filter,
                               Capability::atomic,
                               Capability::deepenNot,
                               Capability::deepenRelative,
                               Capability::deepenSince,
                               Capability::deleteRefs,
                               Capability::includeTag,
                               Capability::quiet,
                               Capability::noProgress,
                               Capability::ofsDelta,
                               Capability::reportStatus,
                               Capability::shallow,
                               Capability::sideBand,
                               Capability::sideBand64k,
                               Capability::thinPack};

}  // namespace

std::string_view capabilityName(Capability capability) {
    switch (capability) {
        case Capability::atomic:
            return "atomic";
        case Capability::allowReachableSha1InWant:
            return "allow-reachable-sha1-in-want";
        case Capability::allowTipSha1InWant:
            return "allow-tip-sha1-in-want";
        case Capability::filter:
            return "filter";
        case Capability::deepenNot:
            return "deepen-not";
        case Capability::deepenRelative:
            return "deepen-relative";
        case Capability::deepenSince:
            return "deepen-since";
        case Capability::deleteRefs:
            return "delete-refs";
        case Capability::includeTag:
            return "include-tag";
        case Capability::quiet:
            return "quiet";
        case Capability::noProgress:
            return "no-progress";
        case Capability::ofsDelta:
            return "ofs-delta";
        case Capability::reportStatus:
            return "report-status";
        case Capability::shallow:
            return "shallow";
        case Capability::sideBand:
            return "side-band";
        case Capability::sideBand64k:
            return "side-band-64k";
        case Capability::thinPack:
            return "thin-pack";
    }
    return "";
}

std::optional<Capability> capabilityFromName(std::string_view name) {
    for (auto capability : kAll) {
        if (capabilityName(capability) == name) return capability;
    }
    return std::nullopt;
}

Capabilities parseCapabilities(std::string_view words) {
    Capabilities capabilities;
    while (!words.empty()) {
        auto space = words.find(' ');
        auto word = words.substr(0, space);
        if (auto capability = capabilityFromName(word)) capabilities.insert(*capability);
        if (space == std::string_view::npos) break;
        words.remove_prefix(space + 1);
    }
    return capabilities;
}

const std::string& agentCapability() {
    static const std::string agent = [] {
        auto version = versionString();
        return version ? "agent=Corvane/" + *version : std::string("agent=Corvane");
    }();
    return agent;
}

}  // namespace corvane
