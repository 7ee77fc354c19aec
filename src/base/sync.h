// SyncArray, SyncDict, SyncBool, SafeDict: collections shared between threads. Each owns one
// mutex and its collection; every operation is one short critical section that copies in or out,
// so no caller ever holds the lock across its own code. Not copyable or movable: share by
// reference.
#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace corvane {

template <typename Element>
class SyncArray {
  public:
    SyncArray() = default;
    SyncArray(const SyncArray&) = delete;
    SyncArray& operator=(const SyncArray&) = delete;

    std::size_t count() const {
        std::lock_guard lock(mutex_);
        return array_.size();
    }

    // Inserts the elements, in their order, before the current first element.
    void prepend(const std::vector<Element>& elements) {
        std::lock_guard lock(mutex_);
        array_.insert(array_.begin(), elements.begin(), elements.end());
    }
    void prepend(const Element& element) { prepend(std::vector<Element>{element}); }

    std::optional<Element> element(std::size_t index) const {
        std::lock_guard lock(mutex_);
        if (index >= array_.size()) return std::nullopt;
        return array_[index];
    }

    std::optional<Element> remove(std::size_t index) {
        std::lock_guard lock(mutex_);
        if (index >= array_.size()) return std::nullopt;
        Element removed = std::move(array_[index]);
        array_.erase(array_.begin() + static_cast<std::ptrdiff_t>(index));
        return removed;
    }

    // Removes and returns, in order, every element the test accepts. The test runs under the
    // lock: it must only look at the element, never call back into the array.
    template <typename Test>
    std::vector<Element> takeWhere(Test test) {
        std::lock_guard lock(mutex_);
        std::vector<Element> taken;
        auto kept = array_.begin();
        for (auto it = array_.begin(); it != array_.end(); ++it) {
            if (test(std::as_const(*it))) {
                taken.push_back(std::move(*it));
            } else {
                if (kept != it) *kept = std::move(*it);
                ++kept;
            }
        }
        array_.erase(kept, array_.end());
        return taken;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Element> array_;  // guarded by mutex_
};

template <typename Key, typename Value>
class SyncDict {
  public:
    SyncDict() = default;
    SyncDict(const SyncDict&) = delete;
    SyncDict& operator=(const SyncDict&) = delete;

    std::optional<Value> get(const Key& key) const {
        std::lock_guard lock(mutex_);
        auto found = dict_.find(key);
        if (found == dict_.end()) return std::nullopt;
        return found->second;
    }

    void set(const Key& key, Value value) {
        std::lock_guard lock(mutex_);
        dict_.insert_or_assign(key, std::move(value));
    }

    // A copy of the whole dictionary, for infrequent scans done without the lock.
    std::unordered_map<Key, Value> values() const {
        std::lock_guard lock(mutex_);
        return dict_;
    }

  private:
    mutable std::mutex mutex_;
    std::unordered_map<Key, Value> dict_;  // guarded by mutex_
};

class SyncBool {
  public:
    SyncBool() = default;
    SyncBool(const SyncBool&) = delete;
    SyncBool& operator=(const SyncBool&) = delete;

    bool get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    void set(bool value) {
        std::lock_guard lock(mutex_);
        value_ = value;
    }

  private:
    mutable std::mutex mutex_;
    bool value_ = false;  // guarded by mutex_
};

// The same discipline as SyncDict for callers that need only get and set.
template <typename Key, typename Value>
class SafeDict {
  public:
    std::optional<Value> get(const Key& key) const { return dict_.get(key); }
    void set(const Key& key, Value value) { dict_.set(key, std::move(value)); }

  private:
    SyncDict<Key, Value> dict_;
};

}  // namespace corvane
