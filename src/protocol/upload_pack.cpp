#include "protocol/upload_pack.h"

#include <algorithm>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "base/error.h"
#include "objects/commit.h"
#include "protocol/pack_writer.h"

namespace corvane {

namespace {

// Wants by id are served (a partial clone fetches what it left out that way), so both kinds of
// unadvertised wants are allowed.
constexpr Capability kOffered[] = {Capability::sideBand,
                                   Capability::sideBand64k,
                                   Capability::ofsDelta,
                                   Capability::thinPack,
                                   Capability::noProgress,
                                   Capability::includeTag,
                                   Capability::shallow,
                                   Capability::deepenRelative,
                                   Capability::deepenNot,
                                   Capability::deepenSince,
                                   Capability::filter,
                                   Capability::allowTipSha1InWant,
                                   Capability::allowReachableSha1InWant};

// Objects asked of the fetcher at a time while a pack is written.
constexpr std::size_t kFetchBatch = 4096;

std::vector<std::string_view> splitSpaces(std::string_view line) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (;;) {
        auto space = line.find(' ', start);
        parts.push_back(line.substr(start, space - start));
        if (space == std::string_view::npos) return parts;
        start = space + 1;
    }
}

// Marks a tree and everything below it as seen.
void markTreeSeen(const RepositoryContent& content, const std::string& root,
                  std::unordered_set<std::string>& seen) {
    std::vector<std::string> pending{root};
    while (!pending.empty()) {
        std::string id = std::move(pending.back());
        pending.pop_back();
        if (!seen.insert(id).second) continue;
        const PartialTree* tree = content.trees.find(id);
        if (!tree) continue;
        for (auto subtree : tree->trees)
            pending.push_back(linkedId(subtree));
        for (auto blob : tree->blobs)
            seen.insert(linkedId(blob));
    }
}

}  // namespace

UploadPack::UploadPack(GitSocket& socket, std::shared_ptr<Repository> repository,
                       ObjectFetcher& fetcher)
    : socket_(socket), repository_(std::move(repository)), fetcher_(fetcher) {}

std::optional<std::string> UploadPack::headReference(const RepositoryContent& content) {
    auto branch = Repository::defaultBranch(content);
    if (!branch) return std::nullopt;
    return "refs/heads/" + *branch;
}

std::vector<std::string> UploadPack::followedTags(const RepositoryContent& content,
                                                  const std::vector<std::string>& sent) {
    std::unordered_set<std::string> inPack(sent.begin(), sent.end());
    std::vector<std::string> tags;
    for (auto ref = content.refs.lower_bound("refs/tags/");
         ref != content.refs.end() && ref->first.starts_with("refs/tags/"); ++ref) {
        auto target = peeledTag(content, ref->second);
        if (!target || !inPack.contains(*target)) continue;
        for (std::string id = ref->second; id != *target; id = content.tags.find(id)->target) {
            if (inPack.insert(id).second) tags.push_back(id);
        }
    }
    return tags;
}

std::string UploadPack::capabilityText(const std::optional<std::string>& headReference) {
    std::string text;
    for (auto capability : kOffered) {
        text += capabilityName(capability);
        text += ' ';
    }
    // Without it a client cloning a repository whose branch is not master checks nothing out.
    if (headReference) text += "symref=HEAD:" + *headReference + " ";
    text += agentCapability();
    return text;
}

void UploadPack::run() {
    auto content = repository_->content();
    advertiseRefs(*content);
    Capabilities capabilities;
    DepthRequest depth;
    ObjectFilter filter;
    std::vector<std::string> wants;
    ShallowUpdate shallow;
    try {
        wants = readRequest(capabilities, depth, filter);
        if (wants.empty()) return;  // a reference listing
        // A v0 client asks for it among the capabilities.
        if (capabilities.contains(Capability::deepenRelative)) depth.relative = true;
        shallow = updateShallow(*content, wants, depth, [this](const std::string& id) {
            auto commit = parseCommit(fetcher_.readObject(id, *repository_), TextCheck::none);
            return static_cast<std::int64_t>(commit.committer.timestamp.value_or(0));
        });
    } catch (const Error& error) {
        // Until the pack, a client reads plain lines: an ERR line is the error it shows.
        socket_.writePktLine("ERR " + std::string(error.what()) + "\n");
        throw;
    }
    socket_.setCapabilities(capabilities);
    if (depth.deepens()) {
        for (const auto& id : shallow.shallow)
            socket_.writePktLine("shallow " + id + "\n");
        for (const auto& id : shallow.unshallow)
            socket_.writePktLine("unshallow " + id + "\n");
        socket_.writePktLine(kFlush);
    }
    auto haves = negotiate(*content);
    wants.insert(wants.end(), shallow.extraWants.begin(), shallow.extraWants.end());
    sendPack(*content, wants, haves, capabilities, shallow.boundaries, filter);
}

void UploadPack::advertiseRefs(const RepositoryContent& content) {
    if (content.refs.empty()) {
        socket_.writePktLine(kFlush);
        return;
    }
    std::vector<std::pair<std::string, std::string>> lines(content.refs.begin(),
                                                           content.refs.end());
    auto head = headReference(content);
    if (head) lines.insert(lines.begin(), {"HEAD", content.refs.at(*head)});
    bool first = true;
    for (const auto& [name, id] : lines) {
        std::string line = id + " " + name;
        if (first) {
            line += '\0';
            line += capabilityText(head);
            first = false;
        }
        line += '\n';
        socket_.writePktLine(line);
        if (name.starts_with("refs/tags/")) {
            if (auto target = peeledTag(content, id))
                socket_.writePktLine(*target + " " + name + "^{}\n");
        }
    }
    socket_.writePktLine(kFlush);
}

std::vector<std::string> UploadPack::readRequest(Capabilities& capabilities, DepthRequest& depth,
                                                 ObjectFilter& filter) {
    std::vector<std::string> wants;
    for (;;) {
        std::string line = socket_.readPktLine();
        if (line.empty()) return wants;
        if (!wants.empty() && depth.read(line)) continue;
        if (!wants.empty() && line.starts_with("filter ")) {
            filter = ObjectFilter::parse(std::string_view(line).substr(7));
            continue;
        }
        auto parts = splitSpaces(line);
        if (parts.size() < 2 || parts[0] != "want") throw Error("Invalid upload-pack want");
        if (wants.empty()) {
            for (std::size_t i = 2; i < parts.size(); ++i) {
                if (auto capability = capabilityFromName(parts[i]))
                    capabilities.insert(*capability);
            }
        }
        wants.emplace_back(parts[1]);
    }
}

// Reads haves batch by batch until "done". A flush ends a batch: it gets "NAK" while nothing
// is in common; the first known commit gets one "ACK" at once; "done" gets a final "NAK" when
// nothing was in common. Every line the client sends is read, however far ahead it is.
std::vector<std::string> UploadPack::negotiate(const RepositoryContent& content) {
    std::vector<std::string> haves;
    bool common = false;
    for (;;) {
        std::string line = socket_.readPktLine();
        if (line == "done") break;
        if (line.empty()) {
            if (!common) socket_.writePktLine("NAK\n");
            continue;
        }
        auto parts = splitSpaces(line);
        if (parts.size() != 2 || parts[0] != "have") throw Error("Invalid upload-pack have");
        haves.emplace_back(parts[1]);
        if (!common && content.commits.contains(haves.back())) {
            common = true;
            socket_.writePktLine("ACK " + haves.back() + "\n");
        }
    }
    if (!common) socket_.writePktLine("NAK\n");
    return haves;
}

std::vector<std::string> UploadPack::selectObjects(
    const RepositoryContent& content, const std::vector<std::string>& wants,
    const std::vector<std::string>& haves, const std::unordered_set<std::string>& boundaries,
    const ObjectFilter& filter) {
    std::unordered_set<std::string> seen(haves.begin(), haves.end());
    // What a known have reaches through its tree, the client has already.
    for (const auto& have : haves) {
        if (const PartialCommit* commit = content.commits.find(have))
            markTreeSeen(content, commit->tree, seen);
    }
    std::vector<std::string> output;
    std::vector<std::string> pendingCommits;
    std::vector<std::string> pendingTrees;
    std::vector<std::string> blobs;
    // A blob is met once per tree that lists it (millions of times in a long history): one
    // look each, and its size only where the filter asks about sizes.
    auto addBlob = [&](const std::string& blob) {
        if (seen.insert(blob).second) blobs.push_back(blob);
    };
    auto keepsBlob = [&](const std::string& blob) {
        if (filter.kind == ObjectFilter::Kind::everything) return true;
        const std::int64_t* size = content.blobs.find(blob);
        return filter.keepsBlob(size ? *size : std::int64_t{-1});
    };
    for (const auto& want : wants) {
        if (const PartialTag* tag = content.tags.find(want)) {
            if (seen.insert(want).second) output.push_back(want);
            if (tag->type == ObjectType::commit) pendingCommits.push_back(tag->target);
            if (tag->type == ObjectType::tree && filter.keepsTrees())
                pendingTrees.push_back(tag->target);
            if (tag->type == ObjectType::blob && keepsBlob(tag->target)) addBlob(tag->target);
        } else if (content.trees.contains(want)) {
            pendingTrees.push_back(want);  // asked for by id: sent whatever the filter
        } else if (content.blobs.contains(want)) {
            addBlob(want);
        } else {
            pendingCommits.push_back(want);
        }
    }
    while (!pendingCommits.empty()) {
        std::string id = std::move(pendingCommits.back());
        pendingCommits.pop_back();
        if (!seen.insert(id).second) continue;
        const PartialCommit* commit = content.commits.find(id);
        if (!commit) throw Error("Commit " + id + " not found on server");
        if (!boundaries.contains(id)) {
            for (const auto& parent : commit->parents)
                pendingCommits.push_back(parent);
        }
        if (filter.keepsTrees()) pendingTrees.push_back(commit->tree);
        output.push_back(id);
    }
    // Trees link to the same objects millions of times over: a link followed once is passed
    // over by its number, before its id is even spelled out.
    std::vector<bool> followed(ObjectIdTable::process().size());
    auto firstTime = [&](TreeLink link) {
        if (link >= followed.size()) followed.resize(link + std::size_t{1});
        if (followed[link]) return false;
        followed[link] = true;
        return true;
    };
    while (!pendingTrees.empty()) {
        std::string id = std::move(pendingTrees.back());
        pendingTrees.pop_back();
        if (!seen.insert(id).second) continue;
        const PartialTree* tree = content.trees.find(id);
        if (!tree) throw Error("Tree " + id + " not found on server");
        if (filter.keepsTrees()) {
            for (auto subtree : tree->trees) {
                if (firstTime(subtree)) pendingTrees.push_back(linkedId(subtree));
            }
        }
        for (auto link : tree->blobs) {
            if (!firstTime(link)) continue;
            auto blob = linkedId(link);
            if (keepsBlob(blob)) addBlob(blob);
        }
        output.push_back(id);
    }
    output.insert(output.end(), blobs.begin(), blobs.end());
    return output;
}

namespace {

// The commits whose trees a thin pack's bases are looked for in: git looks at its boundary
// commits in the same way. Enough for the fetches people make; a walk of every have would cost
// more than it saves.
constexpr std::size_t kThinBaseCommits = 16;

// What the client takes: ofs-deltas as it asked, and for a thin pack the objects below the trees
// of the commits it has, which deltas may lean on without their bases being sent.
PackWriter::DeltaRules deltaRules(const RepositoryContent& content,
                                  const std::vector<std::string>& haves,
                                  const Capabilities& capabilities) {
    PackWriter::DeltaRules rules;
    rules.ofsDeltas = capabilities.contains(Capability::ofsDelta);
    if (!capabilities.contains(Capability::thinPack)) return rules;
    std::unordered_set<std::string> held;
    std::size_t walked = 0;
    for (const auto& have : haves) {
        const PartialCommit* commit = content.commits.find(have);
        if (!commit) continue;
        markTreeSeen(content, commit->tree, held);
        if (++walked == kThinBaseCommits) break;
    }
    for (const auto& id : held) {
        if (auto digest = parseObjectId(id)) rules.clientHas.insert(*digest);
    }
    return rules;
}

// An object to send that a stored pack in the cache holds.
struct StoredObject {
    std::string id;
    StoredPackCache::Found found;
};

// Copies stored entries so that each delta follows its base when both are sent, and can point
// back at it: in their packs' order (a pack puts bases first), a delta whose base is still to
// come waiting for it. What still waits at the end (a base the workers wrote whole, or none)
// goes last, as a delta where its base is written by then, else whole.
void sendStored(PackWriter& writer, std::vector<StoredObject>& stored) {
    std::sort(stored.begin(), stored.end(), [](const StoredObject& a, const StoredObject& b) {
        return std::tie(a.found.pack->name(), a.found.entry.offset) <
               std::tie(b.found.pack->name(), b.found.entry.offset);
    });
    std::unordered_set<Digest, DigestHash> sending;
    for (const auto& object : stored)
        sending.insert(object.found.entry.id);
    std::unordered_map<Digest, std::vector<std::size_t>, DigestHash> waiting;
    auto send = [&](std::size_t first) {
        std::vector<std::size_t> work{first};
        while (!work.empty()) {
            auto& object = stored[work.back()];
            work.pop_back();
            writer.addStored(object.id, *object.found.pack, object.found.entry);
            auto dependents = waiting.find(object.found.entry.id);
            if (dependents == waiting.end()) continue;
            work.insert(work.end(), dependents->second.begin(), dependents->second.end());
            waiting.erase(dependents);
        }
    };
    for (std::size_t i = 0; i < stored.size(); ++i) {
        const auto& base = stored[i].found.entry.base;
        if (base && sending.contains(*base) && !writer.holds(*base)) {
            waiting[*base].push_back(i);
        } else {
            send(i);
        }
    }
    writer.waitForRoom(1);
    std::vector<std::size_t> rest;
    for (const auto& [base, dependents] : waiting)
        rest.insert(rest.end(), dependents.begin(), dependents.end());
    waiting.clear();
    std::sort(rest.begin(), rest.end());
    for (auto i : rest)
        send(i);
}

}  // namespace

void UploadPack::sendPack(const RepositoryContent& content, const std::vector<std::string>& wants,
                          const std::vector<std::string>& haves, const Capabilities& capabilities,
                          const std::unordered_set<std::string>& boundaries,
                          const ObjectFilter& filter) {
    auto ids = selectObjects(content, wants, haves, boundaries, filter);
    if (capabilities.contains(Capability::includeTag)) {
        auto tags = followedTags(content, ids);
        ids.insert(ids.end(), tags.begin(), tags.end());
    }
    unsigned workers = std::max(2u, std::thread::hardware_concurrency());
    // The fetcher has each object in the cache before it is added; a cached file that turns
    // out damaged when read is downloaded again instead of failing the clone.
    PackWriter writer(
        socket_,
        [this](const std::string& id, std::optional<Bytes>* stream) {
            return fetcher_.readObject(id, *repository_, stream);
        },
        workers,
        // A partial clone may lack blobs below the commits it has.
        deltaRules(
            content,
            filter.kind == ObjectFilter::Kind::everything ? haves : std::vector<std::string>{},
            capabilities));
    writer.begin(ids.size());

    // Objects of stored packs are copied as they are stored, deltas and all; the others are read
    // and compressed whole, first, so that stored deltas on them find them sent.
    try {
        fetcher_.fetchStoredPacks(*repository_);
    } catch (const std::exception&) {
        // Each object then fails on its own, with the download's error.
    }
    std::vector<StoredObject> stored;
    std::vector<std::string> others;
    // A repository of whole objects only (pushed before stored packs) is not looked up object by
    // object: each miss would look at the cache's folder again.
    const bool anyStored = holdsStoredPacks(content);
    for (auto& id : ids) {
        auto found = anyStored ? fetcher_.store().storedPacks().find(digestOfId(id)) : std::nullopt;
        if (found) {
            stored.push_back({std::move(id), std::move(*found)});
        } else {
            others.push_back(std::move(id));
        }
    }
    // A batch at a time, each asked for once the writer is nearly through the one before: the
    // requests and queued work of a whole history would take hundreds of megabytes.
    for (std::size_t start = 0; start < others.size(); start += kFetchBatch) {
        auto end = others.begin() +
                   static_cast<std::ptrdiff_t>(std::min(others.size(), start + kFetchBatch));
        std::vector<std::string> batch(others.begin() + static_cast<std::ptrdiff_t>(start), end);
        writer.waitForRoom(kFetchBatch / 4);
        fetcher_.fetchObjects(batch, *repository_,
                              [&](const std::string& id, const std::optional<std::string>& error) {
                                  if (error) {
                                      writer.fail("Failed to fetch object " + id + ": " + *error);
                                  } else {
                                      writer.add(id);
                                  }
                              });
    }
    writer.waitForRoom(1);
    sendStored(writer, stored);
    writer.finish();
    socket_.writePktLine(kFlush);
}

}  // namespace corvane
