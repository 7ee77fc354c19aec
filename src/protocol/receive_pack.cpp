#include "protocol/receive_pack.h"

#include <malloc.h>

#include <cstdio>
#include <unordered_set>

#include "base/error.h"
#include "objects/delta.h"
#include "storage/pack_consolidator.h"
#include "storage/stored_pack.h"

namespace corvane {

namespace {

constexpr Capability kOffered[] = {Capability::reportStatus, Capability::deleteRefs,
                                   Capability::sideBand64k, Capability::quiet, Capability::atomic};

std::optional<std::string> unlessZero(std::string_view id) {
    if (id == zeroId) return std::nullopt;
    return std::string(id);
}

// The objects a push keeps at hand as bases for the deltas that follow them.
constexpr std::size_t kRecentObjectBytes = 32 << 20;

// A push that keeps meeting pushes from elsewhere gives up and lets its client fetch first.
constexpr int kSaveAttempts = 5;

// Adds the summaries of the received objects to the content; returns the ids it did not have.
std::vector<std::string> mergeSummaries(const RepositoryContent& received,
                                        RepositoryContent& content) {
    std::vector<std::string> added;
    auto merge = [&](const auto& from, auto& into) {
        auto ids = into.addAbsent(from);
        added.insert(added.end(), std::make_move_iterator(ids.begin()),
                     std::make_move_iterator(ids.end()));
    };
    merge(received.tags, content.tags);
    merge(received.commits, content.commits);
    merge(received.trees, content.trees);
    merge(received.blobs, content.blobs);
    return added;
}

}  // namespace

ReceivePack::ReceivePack(GitSocket& socket, std::shared_ptr<Repository> repository,
                         Backend& backend)
    : socket_(socket), repository_(std::move(repository)), backend_(backend) {}

std::string ReceivePack::capabilityText() {
    std::string text;
    for (auto capability : kOffered) {
        text += capabilityName(capability);
        text += ' ';
    }
    return text + agentCapability();
}

RefUpdate ReceivePack::parseCommand(std::string_view line) {
    auto first = line.find(' ');
    auto second = first == std::string_view::npos ? first : line.find(' ', first + 1);
    auto fail = [] { return Error("Invalid receive-pack command"); };
    if (second == std::string_view::npos) throw fail();
    auto old = line.substr(0, first);
    auto updated = line.substr(first + 1, second - first - 1);
    auto ref = line.substr(second + 1);
    if (!isObjectId(old) || !isObjectId(updated) || ref.find(' ') != std::string_view::npos) {
        throw fail();
    }
    return {std::string(ref), unlessZero(old), unlessZero(updated)};
}

void ReceivePack::run() {
    advertiseRefs(*repository_->content());
    auto commands = readCommands();
    bool wantsPack = std::any_of(commands.begin(), commands.end(),
                                 [](const RefUpdate& command) { return command.new_.has_value(); });
    // Read into the cache and summarised on their own, so that the pack can be merged into
    // whatever the repository is once this push's turn comes.
    RepositoryContent received;
    if (wantsPack) readPack(received);
    received.freeze();  // shared, not copied, by the content it joins

    // From here on this push alone, in this process, changes the repository; a push elsewhere
    // shows itself as a conflict, and the push starts again from what that one saved.
    auto turn = backend_.lockPushes(*repository_);
    bool packsSaved = false;
    std::map<std::string, std::int64_t> packSizes;
    for (int attempt = 1;; ++attempt) {
        Repository::ContentUpdate update(*repository_);
        RepositoryContent& content = update.content();
        // The stored packs hold every object received; they go up once, with the first
        // attempt that finds objects the repository lacks.
        auto newIds = mergeSummaries(received, content);
        if (!newIds.empty() && !packsSaved) {
            upload(newIds.size(), packSizes);
            packsSaved = true;
        }
        for (const auto& [packId, size] : packSizes) {
            // The same objects pushed again make a pack of the same name: live once more.
            content.packs[packId] = size;
            content.retiredPacks.erase(packId);
        }

        for (const auto& command : commands) {
            auto current = content.refs.find(command.ref);
            bool matches =
                current == content.refs.end() ? !command.old : command.old == current->second;
            if (!matches) throw Error("Remote repository has been updated");
        }
        auto refs = content.refs;
        for (const auto& command : commands) {
            if (command.new_) {
                refs[command.ref] = *command.new_;
            } else {
                refs.erase(command.ref);
            }
        }
        if (refs == content.refs) break;
        content.refs = std::move(refs);
        try {
            backend_.saveRepository(repository_, update);
            break;
        } catch (const Conflict&) {
            if (attempt == kSaveAttempts) throw Error("Remote repository has been updated");
        }
        // Saved elsewhere since this push read it: start again from the stored repository.
        repository_ = backend_.fetchRepository(repository_->name(), repository_->owner());
    }
    report(commands);
    socket_.writePktLine(kFlush);
    if (packsSaved) backend_.consolidator().consider(repository_->name(), repository_->owner());
}

void ReceivePack::advertiseRefs(const RepositoryContent& content) {
    if (content.refs.empty()) {
        socket_.writePktLine(zeroId + " capabilities^{}" + '\0' + capabilityText() + "\n");
    } else {
        bool first = true;
        for (const auto& [name, id] : content.refs) {
            std::string line = id + " " + name;
            if (first) {
                line += '\0';
                line += capabilityText();
                first = false;
            }
            socket_.writePktLine(line + "\n");
        }
    }
    socket_.writePktLine(kFlush);
}

std::vector<RefUpdate> ReceivePack::readCommands() {
    std::vector<RefUpdate> commands;
    Capabilities capabilities;
    for (;;) {
        std::string line = socket_.readPktLine();
        if (line.empty()) break;
        if (commands.empty()) {
            auto nul = line.find('\0');
            if (nul != std::string::npos) {
                capabilities = parseCapabilities(std::string_view(line).substr(nul + 1));
                line.resize(nul);
            }
        }
        commands.push_back(parseCommand(line));
    }
    socket_.setCapabilities(capabilities);
    return commands;
}

void ReceivePack::RecentObjects::keep(std::shared_ptr<const Object> object) {
    bytes_ += object->data().size();
    byId_.insert_or_assign(object->id(), object);
    order_.push_back(std::move(object));
    while (bytes_ > kRecentObjectBytes && order_.size() > 1) {
        const auto& oldest = order_.front();
        bytes_ -= oldest->data().size();
        auto kept = byId_.find(oldest->id());
        if (kept != byId_.end() && kept->second == oldest) byId_.erase(kept);
        order_.pop_front();
    }
}

std::shared_ptr<const Object> ReceivePack::RecentObjects::find(const std::string& id) const {
    auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : found->second;
}

void ReceivePack::readPack(RepositoryContent& received) {
    std::uint32_t count = socket_.readPackHeader();
    if (count < 1) return;  // no objects, and no trailer either
    // The objects are kept as they came, deltas and all, in stored packs of a bounded size that
    // go into the cache as they fill; nothing else of them is written. The count is the
    // client's word: nothing is sized by it before the objects arrive.
    Store& store = backend_.store();
    StoredPackBuilder builder([&store] { return store.uniqueWorkingFile("pack"); });
    RecentObjects recent;
    auto seal = [&] { storedPacks_.push_back(store.storedPacks().place(builder.finish())); };
    for (std::uint32_t i = 0; i < count; ++i) {
        auto object = std::make_shared<const Object>(readObject(builder, recent));
        summarise(*object, received);
        recent.keep(std::move(object));
        if (builder.dataSize() >= kStoredPackLimit) seal();
    }
    socket_.readRawBytes(20);  // trailer: every object was checked by its own id
    if (builder.count() > 0) seal();
}

Object ReceivePack::readObject(StoredPackBuilder& builder, const RecentObjects& recent) {
    auto [type, size] = socket_.readObjectHeader();
    Bytes stream;
    if (type == ObjectType::refDelta) {
        std::string source = hexString(socket_.readRawBytes(20));
        RefDelta delta{source, socket_.inflateObject(size, &stream)};
        Object object = apply(loadBase(source, builder, recent), delta);
        builder.addDelta(digestOfId(object.id()), digestOfId(source), size, stream);
        return object;
    }
    if (type == ObjectType::ofsDelta) throw Error("ofs_deltas not supported");
    Object object(type, socket_.inflateObject(size, &stream));
    builder.addWhole(digestOfId(object.id()), type, size, stream);
    return object;
}

Object ReceivePack::loadBase(const std::string& id, const StoredPackBuilder& builder,
                             const RecentObjects& recent) {
    // Most bases came just before their deltas; others earlier in this pack are rebuilt from
    // what it holds so far; one the client assumes we have is in the cache or the cloud.
    if (auto kept = recent.find(id)) return *kept;
    auto outside = [&](const std::string& base) {
        return backend_.fetcher().readObject(base, *repository_);
    };
    if (builder.contains(digestOfId(id))) return builder.read(digestOfId(id), outside);
    return outside(id);
}

void ReceivePack::upload(std::size_t newObjects, std::map<std::string, std::int64_t>& packSizes) {
    const std::string count = std::to_string(newObjects);
    socket_.writeProgress("Uploading " + count + " objects to the cloud \r");
    std::size_t saved = 0;
    for (const auto& pack : storedPacks_) {
        for (const auto& [name, size] : backend_.saveStoredPacks(*repository_, {pack}))
            packSizes[name] = size;
        // Bytes are what takes the time, and packs are all of about one size.
        auto percent = std::to_string(++saved * 100 / storedPacks_.size());
        socket_.writeProgress("Uploading " + count + " objects to the cloud: " + percent + "%  \r");
    }
    socket_.writeProgress("Uploading " + count + " objects to the cloud: done\n");
}

void ReceivePack::report(const std::vector<RefUpdate>& commands) {
    if (!socket_.hasCapability(Capability::reportStatus)) return;
    Bytes status;
    GitSocket::appendPktLine("unpack ok\n", status);
    for (const auto& command : commands)
        GitSocket::appendPktLine("ok " + command.ref + "\n", status);
    GitSocket::appendPktLine(kFlush, status);
    socket_.writeSideBandData(status);
    socket_.drainPackBuffer();
}

}  // namespace corvane
