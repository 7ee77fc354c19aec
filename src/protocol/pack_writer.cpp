#include "protocol/pack_writer.h"

#include <sys/socket.h>

#include <cstring>
#include <limits>

#include "base/error.h"
#include "objects/zlib.h"

namespace corvane {

namespace {

// zlibDeflate gives nothing for nothing, but a pack entry always needs a whole zlib stream:
// this is the stream of zero bytes.
constexpr std::uint8_t kEmptyStream[] = {0x78, 0x9c, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01};

}  // namespace

PackWriter::PackWriter(GitSocket& socket, ObjectReader read, unsigned workers, DeltaRules rules)
    : socket_(socket), read_(std::move(read)), rules_(std::move(rules)) {
    workers_.emplace("pack-writer", workers);
}

void PackWriter::begin(std::size_t objectCount) {
    if (objectCount > std::numeric_limits<std::uint32_t>::max()) {
        throw Error("Too many objects for one pack: " + std::to_string(objectCount));
    }
    auto count = static_cast<std::uint32_t>(objectCount);
    const std::uint8_t header[12] = {'P',
                                     'A',
                                     'C',
                                     'K',
                                     0,
                                     0,
                                     0,
                                     2,
                                     static_cast<std::uint8_t>(count >> 24),
                                     static_cast<std::uint8_t>(count >> 16),
                                     static_cast<std::uint8_t>(count >> 8),
                                     static_cast<std::uint8_t>(count)};
    socket_.writeSideBandData(header);
}

void PackWriter::add(const std::string& id) {
    {
        std::lock_guard lock(queueMutex_);
        ++queued_;
    }
    workers_->async([this, id] {
        write(id);
        std::lock_guard lock(queueMutex_);
        --queued_;
        dequeued_.notify_all();
    });
}

void PackWriter::waitForRoom(std::size_t limit) {
    std::unique_lock lock(queueMutex_);
    dequeued_.wait(lock, [&] { return queued_ < limit; });
}

void PackWriter::write(const std::string& id) {
    {
        std::lock_guard lock(writeMutex_);
        if (failed_) return;
    }
    Bytes header;
    Bytes compressed;
    try {
        std::optional<Bytes> stream;
        Object object = read_(id, &stream);
        header = packEntryHeader(object.type(), object.data().size());
        if (stream) {
            compressed = std::move(*stream);
        } else if (object.data().empty()) {
            compressed.assign(std::begin(kEmptyStream), std::end(kEmptyStream));
        } else {
            compressed = zlibDeflate(object.data());
        }
    } catch (const std::exception& error) {
        fail(error.what());
        return;
    }
    std::lock_guard lock(writeMutex_);
    emit(digestOfId(id), header, compressed);
}

void PackWriter::emit(const Digest& id, ByteView header, ByteView rest) {
    if (failed_) return;
    try {
        socket_.writeSideBandData(header);
        socket_.writeSideBandData(rest);
    } catch (const std::exception&) {
        // The connection is gone; finish() reports it when it writes the trailer.
        failed_ = true;
        return;
    }
    written_.emplace(id, offset_);
    offset_ += header.size() + rest.size();
}

bool PackWriter::holds(const Digest& id) {
    std::lock_guard lock(writeMutex_);
    return written_.contains(id);
}

void PackWriter::addStored(const std::string& id, const CachedStoredPack& pack,
                           const StoredPackEntry& entry) {
    Bytes bytes;
    StoredEntryView view;
    try {
        bytes = pack.readEntry(entry);
        view = viewEntry(bytes, entry);
    } catch (const Error&) {
        add(id);  // a damaged copy: the object is read, and its pack fetched again, the usual way
        return;
    }
    std::unique_lock lock(writeMutex_);
    if (entry.kind == StoredEntryKind::whole) {
        emit(entry.id, view.header, view.stream);
        return;
    }
    auto base = written_.find(*entry.base);
    bool thin = base == written_.end() && rules_.clientHas.contains(*entry.base);
    if (base == written_.end() && !thin) {
        lock.unlock();
        add(id);
        return;
    }
    Bytes header;
    if (!thin && rules_.ofsDeltas) {
        header = packEntryHeader(ObjectType::ofsDelta, view.size);
        appendOffsetDistance(header, offset_ - base->second);
    } else {
        header = packEntryHeader(ObjectType::refDelta, view.size);
        header.insert(header.end(), entry.base->begin(), entry.base->end());
    }
    emit(entry.id, header, view.stream);
}

void PackWriter::fail(const std::string& message) {
    std::lock_guard lock(writeMutex_);
    if (failed_) return;
    failed_ = true;
    try {
        if (socket_.hasSideBand()) socket_.writeError(message);
    } catch (const std::exception&) {
    }
    ::shutdown(socket_.sock(), SHUT_WR);
}

void PackWriter::finish() {
    workers_.reset();  // runs what is queued, then joins
    Digest digest = socket_.packHash().finish();
    socket_.writeSideBandData(digest);
    socket_.drainPackBuffer();
}

}  // namespace corvane
