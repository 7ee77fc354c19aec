#include "storage/object_writer.h"

namespace corvane {

ObjectWriter::ObjectWriter(Store& store, unsigned threads, std::size_t maxPendingBytes,
                           Layout layout)
    : store_(store), maxPendingBytes_(maxPendingBytes) {
    if (layout == Layout::packed) pack_ = store_.beginPack();
    workers_.emplace("object-writer", threads);
}

ObjectWriter::~ObjectWriter() {
    workers_.reset();
    if (pack_) store_.abandonPack(pack_);
}

void ObjectWriter::put(std::shared_ptr<const Object> object) {
    {
        std::unique_lock lock(mutex_);
        // One object larger than the limit still goes through, alone.
        written_.wait(lock, [&] {
            return failure_ || pending_.empty() ||
                   pendingBytes_ + object->data().size() <= maxPendingBytes_;
        });
        throwIfFailed();
        if (!pending_.emplace(object->id(), object).second) return;  // already on its way
        pendingBytes_ += object->data().size();
    }
    workers_->async([this, object] { write(object); });
}

void ObjectWriter::write(const std::shared_ptr<const Object>& object) {
    std::exception_ptr failure;
    try {
        if (pack_) {
            store_.putObject(*object, *pack_);
        } else {
            store_.putObject(*object);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    {
        std::lock_guard lock(mutex_);
        if (failure && !failure_) failure_ = failure;
        pending_.erase(object->id());
        pendingBytes_ -= object->data().size();
    }
    written_.notify_all();
}

std::shared_ptr<const Object> ObjectWriter::find(const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto found = pending_.find(id);
    return found == pending_.end() ? nullptr : found->second;
}

void ObjectWriter::finish() {
    workers_.reset();  // runs what is queued, then joins
    {
        std::lock_guard lock(mutex_);
        throwIfFailed();
    }
    if (pack_) {
        store_.commitPack(pack_);
        pack_.reset();
    }
}

void ObjectWriter::throwIfFailed() {
    if (failure_) std::rethrow_exception(failure_);
}

}  // namespace corvane
