#include "storage/incremental_meta.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <future>
#include <thread>

#include "base/error.h"
#include "base/queues.h"
#include "storage/file_io.h"
#include "storage/repository_meta.h"
#include "storage/stored_pack.h"

namespace corvane {

namespace {

// Versions 3 and 4 share the layout; 4 says that some packs are stored packs.
bool isVersion3(const cloud::Record& record) {
    const auto* version = record.get<std::int64_t>("version");
    return version && (*version == 3 || *version == 4);
}

std::vector<cloud::Asset> listOf(const cloud::Record& record, const char* key) {
    const auto* assets = record.get<std::vector<cloud::Asset>>(key);
    return assets ? *assets : std::vector<cloud::Asset>{};
}

std::vector<cloud::Asset> incrementsOf(const cloud::Record& record) {
    return listOf(record, "increments");
}

// "meta", then "parts"; empty without "meta".
std::vector<cloud::Asset> baseOf(const cloud::Record& record) {
    const auto* meta = record.get<cloud::Asset>("meta");
    if (!meta) return {};
    auto base = listOf(record, "parts");
    base.insert(base.begin(), *meta);
    return base;
}

Bytes readDocument(const cloud::Asset& asset) {
    if (!asset.fileURL) throw Error("Corrupted repository record: a metadata document is missing");
    return readFile(*asset.fileURL);
}

// The number of increments `known` has already applied when `increments` extends its list over
// the same base; none otherwise.
std::optional<std::size_t> knownPrefix(const cloud::Record& record, const Repository* known) {
    if (!known) return std::nullopt;
    auto knownRecord = known->record();
    if (!knownRecord || !isVersion3(*knownRecord)) return std::nullopt;
    auto base = baseOf(record);
    if (base.empty() || base != baseOf(*knownRecord)) return std::nullopt;
    auto have = incrementsOf(*knownRecord);
    auto now = incrementsOf(record);
    if (have.size() > now.size() || !std::equal(have.begin(), have.end(), now.begin()))
        return std::nullopt;
    return have.size();
}

// The whole state as a new base: version 2 when it is one part under the threshold, unless
// version 3 is asked for.
MetaSave newBase(const RepositoryContent& after, const DocumentWriter& write, bool version3,
                 std::size_t threshold, std::size_t partJsonBytes) {
    MetaSave save;
    encodeRepositoryMetaParts(after, partJsonBytes, [&](const Bytes& document) {
        save.size += static_cast<std::int64_t>(document.size());
        save.base.push_back(write(document));
    });
    bool small = save.base.size() == 1 && static_cast<std::size_t>(save.size) < threshold;
    save.version = holdsStoredPacks(after) ? 4 : version3 || !small ? 3 : 2;
    return save;
}

}  // namespace

RepositoryContent incrementBetween(const RepositoryContent& before,
                                   const RepositoryContent& after) {
    RepositoryContent increment;
    for (const auto& [name, id] : after.refs) {
        auto old = before.refs.find(name);
        if (old == before.refs.end() || old->second != id) increment.refs[name] = id;
    }
    for (const auto& [name, id] : before.refs) {
        if (!after.refs.contains(name)) increment.refs[name] = kDeletedRef;
    }
    for (const auto& [packId, size] : after.packs) {
        auto old = before.packs.find(packId);
        if (old == before.packs.end() || old->second != size) increment.packs[packId] = size;
    }
    // A pack leaves "packs" by being retired; a retired pack whose record is gone is forgotten.
    for (const auto& [packId, time] : after.retiredPacks) {
        auto old = before.retiredPacks.find(packId);
        if (old == before.retiredPacks.end() || old->second != time)
            increment.retiredPacks[packId] = time;
    }
    for (const auto& [packId, time] : before.retiredPacks) {
        if (!after.retiredPacks.contains(packId)) increment.retiredPacks[packId] = kForgottenPack;
    }
    for (const auto& [packId, size] : before.packs) {
        if (!after.packs.contains(packId) && !after.retiredPacks.contains(packId))
            throw Error("Pack " + packId + " left the repository without being retired");
    }
    auto copyAdded = [](const auto& from, auto& into) {
        from.forEachAdded(
            [&](const std::string& id, const auto& summary) { into.add(id, summary); });
    };
    copyAdded(after.tags, increment.tags);
    copyAdded(after.commits, increment.commits);
    copyAdded(after.trees, increment.trees);
    copyAdded(after.blobs, increment.blobs);
    return increment;
}

void applyIncrement(const RepositoryContent& increment, RepositoryContent& content, bool verbatim) {
    for (const auto& [name, id] : increment.refs) {
        if (id == kDeletedRef && !verbatim) {
            content.refs.erase(name);
        } else {
            content.refs[name] = id;
        }
    }
    // Retirements first: a pack pushed again in the same increment is live once more.
    for (const auto& [packId, time] : increment.retiredPacks) {
        content.packs.erase(packId);
        if (time == kForgottenPack && !verbatim) {
            content.retiredPacks.erase(packId);
        } else {
            content.retiredPacks[packId] = time;
        }
    }
    for (const auto& [packId, size] : increment.packs)
        content.packs[packId] = size;
    auto addAll = [](const auto& from, auto& into) {
        from.forEach([&](const std::string& id, const auto& summary) { into.add(id, summary); });
    };
    addAll(increment.tags, content.tags);
    addAll(increment.commits, content.commits);
    addAll(increment.trees, content.trees);
    addAll(increment.blobs, content.blobs);
}

StoredState readIncrementalMeta(const cloud::Record& record, const Repository* known) {
    StoredState state;
    auto increments = incrementsOf(record);
    std::size_t next = 0;
    if (auto applied = knownPrefix(record, known)) {
        state.content = *known->content();
        state.size = known->metaSize();
        next = *applied;
    } else {
        auto base = baseOf(record);
        if (base.empty())
            throw Error("Corrupted repository record: a metadata document is missing");
        // Parts decode on every core while the ones before are joined, in order; at most one
        // part per core waits.
        using Decoded = std::pair<std::int64_t, RepositoryContent>;
        const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
        std::deque<std::future<Decoded>> decoded;
        WorkQueue decoders("meta_decode", threads);
        auto joinFirst = [&] {
            auto [size, content] = decoded.front().get();
            decoded.pop_front();
            state.size += size;
            applyIncrement(content, state.content, true);
        };
        for (const auto& part : base) {
            auto task = std::make_shared<std::packaged_task<Decoded()>>([part] {
                Bytes document = readDocument(part);
                auto size = static_cast<std::int64_t>(document.size());
                return Decoded{size, decodeRepositoryMeta(document, 2)};
            });
            decoded.push_back(task->get_future());
            decoders.async([task] { (*task)(); });
            while (decoded.size() > threads)
                joinFirst();
        }
        while (!decoded.empty())
            joinFirst();
    }
    for (; next < increments.size(); ++next) {
        Bytes document = readDocument(increments[next]);
        state.size += static_cast<std::int64_t>(document.size());
        applyIncrement(decodeRepositoryMeta(document, 2), state.content);
    }
    return state;
}

MetaSave planMetaSave(const cloud::Record& stored, const RepositoryContent& before,
                      const RepositoryContent& after, const DocumentWriter& write,
                      std::size_t threshold, std::size_t partJsonBytes) {
    auto base = baseOf(stored);
    if (!isVersion3(stored) || base.empty())
        return newBase(after, write, false, threshold, partJsonBytes);
    auto rebase = [&] { return newBase(after, write, true, threshold, partJsonBytes); };

    bool readable = true;
    auto sizeOf = [&](const cloud::Asset& asset) -> std::uintmax_t {
        std::error_code error;
        auto size = asset.fileURL ? std::filesystem::file_size(*asset.fileURL, error) : 0;
        readable = readable && asset.fileURL && !error;
        return size;
    };
    std::uintmax_t baseSize = 0;
    for (const auto& part : base)
        baseSize += sizeOf(part);
    MetaSave save;
    save.version = holdsStoredPacks(after) ? 4 : 3;
    save.keptIncrements = incrementsOf(stored);
    std::vector<std::uintmax_t> sizes;
    for (const auto& kept : save.keptIncrements)
        sizes.push_back(sizeOf(kept));
    // Documents this process cannot read back (a record it saved but could not read again)
    // leave one safe way: a new base.
    if (!readable) return rebase();

    // The last two merge while the older is at most twice the newer, so sizes more than halve
    // from each increment to the next.
    RepositoryContent tail = incrementBetween(before, after);
    Bytes encoded = encodeRepositoryMeta(tail);
    while (!save.keptIncrements.empty() && sizes.back() <= 2 * encoded.size()) {
        RepositoryContent earlier;
        try {
            earlier = decodeRepositoryMeta(readDocument(save.keptIncrements.back()), 2);
        } catch (const Error&) {
            return rebase();
        }
        applyIncrement(tail, earlier, true);
        tail = std::move(earlier);
        encoded = encodeRepositoryMeta(tail);
        save.keptIncrements.pop_back();
        sizes.pop_back();
    }
    std::uintmax_t total = encoded.size();
    for (auto size : sizes)
        total += size;
    // Increments worth half the base, or too many of them, are folded into a new base.
    if (2 * total >= baseSize || save.keptIncrements.size() + 1 > kMaxIncrements) return rebase();
    save.increment = write(encoded);
    save.size = static_cast<std::int64_t>(baseSize + total);
    return save;
}

}  // namespace corvane
