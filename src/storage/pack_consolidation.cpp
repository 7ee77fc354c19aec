#include "storage/pack_consolidation.h"

#include <algorithm>
#include <deque>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "base/error.h"
#include "base/trace.h"
#include "objects/delta_encoder.h"
#include "objects/tree.h"
#include "objects/zlib.h"
#include "storage/object_fetcher.h"
#include "storage/repository.h"

namespace corvane {

namespace {

// Objects this small gain nothing from a delta: its header and instructions cost as much.
constexpr std::uint64_t kMinDeltaObject = 64;

// One object to write. From a stored pack it is copied as stored unless a delta was found for it
// here; from a pack of version 1 or 2 it is read whole.
struct Item {
    Digest id{};
    ObjectType type = ObjectType::error;
    std::shared_ptr<const CachedStoredPack> pack;  // none: read through the fetcher
    StoredPackEntry entry;
    std::optional<Digest> base;  // a delta's base, as stored or as found here
    Bytes foundDelta;            // the zlib stream of a delta found here
    std::uint64_t foundDeltaSize = 0;
    std::uint32_t nameHash = 0;  // of the name a tree gives it, to meet objects of that name
    std::uint64_t sizeHint = 0;
    int depth = 0;   // deltas between it and a whole object among the items
    int height = 0;  // the longest chain of deltas resting on it
    bool written = false;
};

// Names that end alike hash alike, so that versions of one file, and files of one kind, sort
// together and meet in the delta window.
std::uint32_t nameHash(std::string_view name) {
    std::uint32_t hash = 0;
    for (char c : name) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
        hash = (hash >> 2) + (static_cast<std::uint32_t>(static_cast<unsigned char>(c)) << 24);
    }
    return hash;
}

ObjectType typeIn(const RepositoryContent& content, const std::string& id) {
    if (content.blobs.contains(id)) return ObjectType::blob;
    if (content.trees.contains(id)) return ObjectType::tree;
    if (content.commits.contains(id)) return ObjectType::commit;
    if (content.tags.contains(id)) return ObjectType::tag;
    return ObjectType::error;
}

class Consolidation {
  public:
    Consolidation(ObjectFetcher& fetcher, const Repository& repository,
                  const std::atomic<bool>& stopping)
        : fetcher_(fetcher),
          repository_(repository),
          content_(repository.content()),
          stopping_(stopping),
          builder_([&fetcher] { return fetcher.store().uniqueWorkingFile("pack"); }) {}

    std::vector<std::shared_ptr<const CachedStoredPack>> run(
        const std::vector<std::string>& packs) {
        collect(packs);
        measureChains();
        findDeltas();
        for (std::size_t i = 0; i < items_.size(); ++i)
            write(i);
        if (builder_.count() > 0) seal();
        return built_;
    }

  private:
    void checkStopping() const {
        if (stopping_.load()) throw Error("Pack consolidation stopped");
    }

    std::optional<std::size_t> itemOf(const Digest& id) const {
        auto found = byId_.find(id);
        if (found == byId_.end()) return std::nullopt;
        return found->second;
    }

    void add(Item item) {
        if (byId_.contains(item.id)) return;
        byId_.emplace(item.id, items_.size());
        items_.push_back(std::move(item));
    }

    void collect(const std::vector<std::string>& packs) {
        std::set<std::string> chosen(packs.begin(), packs.end());
        std::set<std::string> legacy;
        std::vector<std::shared_ptr<const CachedStoredPack>> kept;
        auto cachedPack = [&](const std::string& name) {
            auto pack = fetcher_.store().storedPacks().pack(name);
            if (!pack) throw Error("Missing pack " + name);
            return pack;
        };
        for (const auto& [name, size] : content_->packs) {
            if (!isStoredPackName(name)) {
                if (chosen.contains(name)) legacy.insert(name);
            } else if (!chosen.contains(name)) {
                kept.push_back(cachedPack(name));
            }
        }
        // Stored entries in the order of their data: objects written together are read together.
        for (const auto& name : packs) {
            if (!isStoredPackName(name)) continue;
            auto pack = cachedPack(name);
            std::vector<StoredPackEntry> entries;
            for (std::size_t i = 0; i < pack->index().count(); ++i)
                entries.push_back(pack->index().at(i));
            std::sort(entries.begin(), entries.end(),
                      [](const auto& a, const auto& b) { return a.offset < b.offset; });
            for (const auto& entry : entries) {
                Item item;
                item.id = entry.id;
                item.type = typeIn(*content_, hexString(entry.id));
                item.pack = pack;
                item.entry = entry;
                item.base = entry.base;
                add(std::move(item));
            }
        }
        if (legacy.empty()) return;
        // Every object of a pack of version 1 or 2 is listed under the first digits of its id,
        // unless a stored pack kept as it is holds it.
        auto keptHolds = [&](const Digest& id) {
            return std::any_of(kept.begin(), kept.end(), [&](const auto& pack) {
                return pack->index().find(id).has_value();
            });
        };
        auto collectLegacy = [&](const auto& map, ObjectType type) {
            map.forEach([&](const std::string& id, const auto&) {
                if (!legacy.contains(id.substr(0, 3))) return;
                Digest digest = digestOfId(id);
                if (byId_.contains(digest) || keptHolds(digest)) return;
                Item item;
                item.id = digest;
                item.type = type;
                add(std::move(item));
            });
        };
        collectLegacy(content_->commits, ObjectType::commit);
        collectLegacy(content_->tags, ObjectType::tag);
        collectLegacy(content_->trees, ObjectType::tree);
        collectLegacy(content_->blobs, ObjectType::blob);
    }

    // The items before `index` along its chain, nearest first, within the items.
    template <typename Visit>
    void walkBases(std::size_t index, Visit visit) const {
        int steps = 0;
        for (auto base = items_[index].base; base; ++steps) {
            auto found = itemOf(*base);
            if (!found || steps > kMaxDeltaDepth) return;  // outside, or a loop readers refuse
            if (!visit(*found, steps + 1)) return;
            base = items_[*found].base;
        }
    }

    void measureChains() {
        for (std::size_t i = 0; i < items_.size(); ++i) {
            int depth = 0;
            walkBases(i, [&](std::size_t base, int distance) {
                depth = distance;
                items_[base].height = std::max(items_[base].height, distance);
                return true;
            });
            items_[i].depth = depth;
        }
    }

    // Names from the trees among the items, for the objects they list.
    void nameObjects() {
        for (auto& item : items_) {
            if (item.type != ObjectType::tree) continue;
            checkStopping();
            Object tree = fetcher_.readObject(hexString(item.id), repository_);
            forEachTreeEntry(tree, TextCheck::none,
                             [&](std::uint16_t, std::string_view name, ByteView id) {
                                 Digest digest{};
                                 std::copy(id.begin(), id.end(), digest.begin());
                                 auto child = itemOf(digest);
                                 if (child && items_[*child].nameHash == 0)
                                     items_[*child].nameHash = nameHash(name);
                             });
        }
    }

    void findDeltas() {
        std::vector<std::size_t> candidates;
        for (std::size_t i = 0; i < items_.size(); ++i) {
            auto& item = items_[i];
            if (item.base || (item.type != ObjectType::blob && item.type != ObjectType::tree))
                continue;
            std::string id = hexString(item.id);
            if (item.type == ObjectType::blob) {
                item.sizeHint = static_cast<std::uint64_t>(content_->blobs.at(id));
            } else {
                const auto& tree = content_->trees.at(id);
                item.sizeHint = (tree.trees.size() + tree.blobs.size()) * 30;
            }
            if (item.sizeHint >= kMinDeltaObject && item.sizeHint <= kMaxDeltaObject)
                candidates.push_back(i);
        }
        if (candidates.size() < 2) return;
        nameObjects();
        // Like with like: by kind, then name, then size, the larger first (a delta that removes
        // is smaller than one that adds).
        std::sort(candidates.begin(), candidates.end(), [&](std::size_t a, std::size_t b) {
            const auto& x = items_[a];
            const auto& y = items_[b];
            if (x.type != y.type) return x.type < y.type;
            if (x.nameHash != y.nameHash) return x.nameHash < y.nameHash;
            return x.sizeHint > y.sizeHint;
        });
        std::deque<std::pair<std::size_t, Object>> window;
        std::size_t found = 0;
        for (auto index : candidates) {
            checkStopping();
            Object object = fetcher_.readObject(hexString(items_[index].id), repository_);
            tryWindow(index, object, window);
            found += items_[index].base.has_value();
            if (object.type() != items_[index].type) continue;
            window.emplace_back(index, std::move(object));
            if (window.size() > kDeltaWindow) window.pop_front();
        }
        trace(TraceModule::request, "found " + std::to_string(found) + " deltas among " +
                                        std::to_string(candidates.size()) + " whole objects");
    }

    void tryWindow(std::size_t index, const Object& object,
                   const std::deque<std::pair<std::size_t, Object>>& window) {
        auto& item = items_[index];
        // Worth it when it saves half, as git judges.
        std::size_t limit = object.data().size() / 2;
        std::optional<Bytes> best;
        std::size_t bestBase = 0;
        for (auto it = window.rbegin(); it != window.rend(); ++it) {
            const auto& [candidate, base] = *it;
            if (base.type() != object.type()) continue;
            if (items_[candidate].depth + 1 + item.height > kMaxConsolidatedDepth) continue;
            bool loops = false;
            walkBases(candidate, [&](std::size_t before, int) {
                loops = before == index;
                return !loops;
            });
            if (loops || limit == 0) continue;
            if (auto delta = encodeDelta(base.data(), object.data(), limit - 1)) {
                limit = delta->size();
                best = std::move(delta);
                bestBase = candidate;
            }
        }
        if (!best) return;
        item.base = items_[bestBase].id;
        item.foundDelta = zlibDeflate(*best);
        item.foundDeltaSize = best->size();
        item.depth = items_[bestBase].depth + 1;
        items_[bestBase].height = std::max(items_[bestBase].height, item.height + 1);
        walkBases(bestBase, [&](std::size_t before, int distance) {
            items_[before].height = std::max(items_[before].height, item.height + 1 + distance);
            return true;
        });
    }

    // Writes the item after the bases it needs among the items.
    void write(std::size_t first) {
        std::vector<std::size_t> pending{first};
        while (!pending.empty()) {
            auto index = pending.back();
            if (items_[index].written) {
                pending.pop_back();
                continue;
            }
            auto base = items_[index].base ? itemOf(*items_[index].base) : std::nullopt;
            if (base && !items_[*base].written && pending.size() <= kMaxDeltaDepth) {
                pending.push_back(*base);
                continue;
            }
            writeOne(items_[index]);
            pending.pop_back();
        }
    }

    void writeOne(Item& item) {
        checkStopping();
        item.written = true;
        if (!item.foundDelta.empty()) {
            builder_.addDelta(item.id, *item.base, item.foundDeltaSize, item.foundDelta);
        } else if (item.pack) {
            Bytes bytes = item.pack->readEntry(item.entry);
            auto view = viewEntry(bytes, item.entry);
            if (item.entry.kind == StoredEntryKind::whole) {
                builder_.addWhole(item.id, *objectTypeFromRaw(view.typeCode), view.size,
                                  view.stream);
            } else {
                builder_.addDelta(item.id, *item.entry.base, view.size, view.stream);
            }
        } else {
            std::optional<Bytes> stream;
            Object object = fetcher_.readObject(hexString(item.id), repository_, &stream);
            if (!stream) stream = zlibDeflate(object.data());
            builder_.addWhole(item.id, object.type(), object.data().size(), *stream);
        }
        if (builder_.dataSize() >= kStoredPackLimit) seal();
    }

    void seal() { built_.push_back(fetcher_.store().storedPacks().place(builder_.finish())); }

    ObjectFetcher& fetcher_;
    const Repository& repository_;
    std::shared_ptr<const RepositoryContent> content_;
    const std::atomic<bool>& stopping_;
    std::vector<Item> items_;
    std::unordered_map<Digest, std::size_t, DigestHash> byId_;
    StoredPackBuilder builder_;
    std::vector<std::shared_ptr<const CachedStoredPack>> built_;
};

}  // namespace

std::vector<std::string> packsToConsolidate(const RepositoryContent& content, bool everything) {
    std::vector<std::string> legacy;
    std::vector<std::string> small;
    std::vector<std::string> all;
    for (const auto& [name, size] : content.packs) {
        all.push_back(name);
        if (!isStoredPackName(name)) {
            legacy.push_back(name);
        } else if (static_cast<std::uint64_t>(size) < kSmallStoredPack) {
            small.push_back(name);
        }
    }
    std::vector<std::string> chosen;
    if (everything) {
        if (all.size() > 1 || !legacy.empty()) chosen = all;
    } else {
        chosen = legacy;
        if (small.size() >= kConsolidateAt) chosen.insert(chosen.end(), small.begin(), small.end());
    }
    // Older first would be better still, but pack names say nothing of age; a fixed order keeps
    // two consolidations of one state identical.
    std::sort(chosen.begin(), chosen.end());
    return chosen;
}

std::vector<std::shared_ptr<const CachedStoredPack>> buildConsolidatedPacks(
    ObjectFetcher& fetcher, const Repository& repository, const std::vector<std::string>& packs,
    const std::atomic<bool>& stopping) {
    return Consolidation(fetcher, repository, stopping).run(packs);
}

}  // namespace corvane
