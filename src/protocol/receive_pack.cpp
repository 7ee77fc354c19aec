#include "protocol/receive_pack.h"

#include <cstdio>
#include <unordered_set>

#include "base/error.h"
#include "cloud/error_codes.h"
#include "cloud/partial_failure.h"
#include "objects/delta.h"
#include "storage/object_writer.h"

namespace corvane {

namespace {

// Both cores compress; the reader waits when this much is read but not yet written.
constexpr unsigned kWriterThreads = 2;
constexpr std::size_t kMaxUnwrittenBytes = 64 << 20;

constexpr Capability kOffered[] = {Capability::reportStatus, Capability::deleteRefs,
                                   Capability::sideBand64k, Capability::quiet, Capability::atomic};

std::optional<std::string> unlessZero(std::string_view id) {
    if (id == zeroId) return std::nullopt;
    return std::string(id);
}

// A save refused because the stored record changed, alone or as the one failure of a batch.
bool isRecordChanged(const CloudError& error) {
    if (error.code() == cloud::kServerRecordChanged) return true;
    const auto* partial = dynamic_cast<const cloud::PartialFailure*>(&error);
    if (!partial) return false;
    return std::any_of(
        partial->partialErrors().begin(), partial->partialErrors().end(),
        [](const auto& entry) { return entry.second.code() == cloud::kServerRecordChanged; });
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

    // From here on this push alone may change the repository; a concurrent push waits and
    // then finds the references moved.
    Repository::ContentUpdate update(*repository_);
    RepositoryContent& content = update.content();
    bool wantsPack = std::any_of(commands.begin(), commands.end(),
                                 [](const RefUpdate& command) { return command.new_.has_value(); });
    if (wantsPack) {
        std::unordered_set<std::string> existing;
        auto received = readPack(content, existing);
        std::vector<std::string> newIds;
        for (const auto& id : received) {
            if (!existing.contains(id)) newIds.push_back(id);
        }
        if (!newIds.empty()) upload(newIds, update);
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
    if (refs != content.refs) {
        content.refs = std::move(refs);
        try {
            backend_.saveRepository(repository_, update);
        } catch (const CloudError& error) {
            // Another push saved the repository since this one read it.
            if (isRecordChanged(error)) {
                throw Error("Remote repository has been updated");
            }
            throw;
        }
    }
    report(commands);
    socket_.writePktLine(kFlush);
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

std::vector<std::string> ReceivePack::readPack(RepositoryContent& content,
                                               std::unordered_set<std::string>& existing) {
    std::uint32_t count = socket_.readPackHeader();
    if (count < 1) return {};
    for (const auto& [id, summary] : content.tags)
        existing.insert(id);
    for (const auto& [id, summary] : content.commits)
        existing.insert(id);
    for (const auto& [id, summary] : content.trees)
        existing.insert(id);
    for (const auto& [id, summary] : content.blobs)
        existing.insert(id);

    // Objects are compressed into the cache on other cores while this thread reads on.
    ObjectWriter writer(backend_.store(), kWriterThreads, kMaxUnwrittenBytes);
    std::vector<std::string> received;
    received.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        auto object = std::make_shared<const Object>(readObject(writer));
        summarise(*object, content);
        received.push_back(object->id());
        writer.put(std::move(object));
    }
    writer.finish();
    socket_.readRawBytes(20);  // trailer: every object was checked by its own id
    return received;
}

Object ReceivePack::readObject(const ObjectWriter& writer) {
    auto [type, size] = socket_.readObjectHeader();
    if (type == ObjectType::refDelta) {
        std::string source = hexString(socket_.readRawBytes(20));
        RefDelta delta{source, socket_.inflateObject(size)};
        return apply(loadBase(source, writer), delta);
    }
    if (type == ObjectType::ofsDelta) throw Error("ofs_deltas not supported");
    return Object(type, socket_.inflateObject(size));
}

Object ReceivePack::loadBase(const std::string& id, const ObjectWriter& writer) {
    // A base from earlier in this pack is on its way to the cache or already there; one the
    // client assumes we have may have to come from the cloud, and so does one whose cached file
    // is corrupt.
    if (auto pending = writer.find(id)) return *pending;
    Store& store = backend_.store();
    if (store.hasObject(id)) {
        try {
            return store.getObject(id);
        } catch (const Error&) {
        }
    }
    backend_.fetcher().fetchObjects({id}, *repository_);
    return store.getObject(id);
}

void ReceivePack::upload(const std::vector<std::string>& newIds,
                         Repository::ContentUpdate& update) {
    const std::string count = std::to_string(newIds.size());
    socket_.writeProgress("Uploading " + count + " objects to iCloud \r");
    std::size_t uploaded = 0;
    std::string lastText;
    auto sizes = backend_.savePacks(
        newIds, *repository_, update.content(), [&](const std::vector<std::string>& saved) {
            uploaded += saved.size();
            double fraction =
                std::min(1.0, static_cast<double>(uploaded) / static_cast<double>(newIds.size()));
            char percent[16];
            std::snprintf(percent, sizeof percent, "%.0f%%", fraction * 100);
            std::string text = "Uploading " + count + " objects to iCloud: " + percent + "  \r";
            if (text != lastText) {
                socket_.writeProgress(text);
                lastText = text;
            }
        });
    for (const auto& [packId, size] : sizes)
        update.content().packs[packId] = size;
    socket_.writeProgress("Uploading " + count + " objects to iCloud: done\n");
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
