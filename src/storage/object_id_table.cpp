#include "storage/object_id_table.h"

#include <functional>
#include <string_view>

#include "base/error.h"

namespace corvane {

namespace {

// Every byte counts: ids read from a stored document need not be real digests.
std::size_t slotOf(const Digest& digest, std::size_t mask) {
    std::string_view bytes(reinterpret_cast<const char*>(digest.data()), digest.size());
    return std::hash<std::string_view>{}(bytes)&mask;
}

}  // namespace

ObjectIdTable& ObjectIdTable::process() {
    static ObjectIdTable table;
    return table;
}

ObjectIdTable::Number ObjectIdTable::number(const Digest& digest) {
    std::lock_guard lock(mutex_);
    return numberLocked(digest);
}

void ObjectIdTable::number(std::span<const Digest> digests, std::vector<Number>& out) {
    std::lock_guard lock(mutex_);
    for (const auto& digest : digests)
        out.push_back(numberLocked(digest));
}

ObjectIdTable::Number ObjectIdTable::numberLocked(const Digest& digest) {
    if (2 * (size_ + 1) > slots_.size()) grow();
    std::size_t mask = slots_.size() - 1;
    std::size_t slot = slotOf(digest, mask);
    for (; slots_[slot] != 0; slot = (slot + 1) & mask) {
        Number held = slots_[slot] - 1;
        if (this->digest(held) == digest) return held;
    }
    if (size_ == kChunks * kChunkSize - 1) throw Error("Too many object ids in one process");
    auto held = static_cast<Number>(size_);
    auto& chunk = chunks_[held >> kChunkBits];
    if (!chunk) chunk = std::make_unique_for_overwrite<Digest[]>(kChunkSize);
    chunk[held & (kChunkSize - 1)] = digest;
    ++size_;
    slots_[slot] = held + 1;
    return held;
}

std::size_t ObjectIdTable::size() const {
    std::lock_guard lock(mutex_);
    return size_;
}

void ObjectIdTable::grow() {
    std::vector<Number> larger(slots_.empty() ? std::size_t{1} << 16 : 2 * slots_.size(), 0);
    std::size_t mask = larger.size() - 1;
    for (std::size_t held = 0; held < size_; ++held) {
        std::size_t slot = slotOf(digest(static_cast<Number>(held)), mask);
        while (larger[slot] != 0)
            slot = (slot + 1) & mask;
        larger[slot] = static_cast<Number>(held + 1);
    }
    slots_ = std::move(larger);
}

}  // namespace corvane
