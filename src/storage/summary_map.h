// SummaryMap: object id → summary, kept as a stack of shared, immutable layers under a small layer
// of its own. Copying one shares the layers, so a push's working copy of a long history costs a
// few pointers, and what the copy added since is its own layer alone.
//
// An id is held once: a summary is a function of the object its id names, so an id already
// present is never added again. Thread safety: a value type; the shared layers never change, so
// copies on different threads need no lock.
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace corvane {

template <typename Summary>
class SummaryMap {
  public:
    using Layer = std::unordered_map<std::string, Summary>;

    // Oldest, largest layers first: most lookups end in the first.
    const Summary* find(const std::string& id) const {
        for (const auto& layer : layers_) {
            auto it = layer->find(id);
            if (it != layer->end()) return &it->second;
        }
        auto it = own_.find(id);
        return it == own_.end() ? nullptr : &it->second;
    }
    bool contains(const std::string& id) const { return find(id) != nullptr; }
    const Summary& at(const std::string& id) const {
        if (const Summary* summary = find(id)) return *summary;
        throw std::out_of_range("no summary for " + id);
    }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    // Adds the summary unless the id is held already; true when it was added.
    bool add(const std::string& id, Summary summary) {
        if (contains(id)) return false;
        own_.emplace(id, std::move(summary));
        ++size_;
        return true;
    }

    // Every entry once, in no particular order: visit(id, summary).
    template <typename Visit>
    void forEach(Visit&& visit) const {
        for (const auto& layer : layers_) {
            for (const auto& [id, summary] : *layer)
                visit(id, summary);
        }
        for (const auto& [id, summary] : own_)
            visit(id, summary);
    }

    // Adds every entry of `other` this map lacks and returns their ids. When it lacks them all
    // (a push of new objects), other's shared layers become layers of this map, uncopied.
    std::vector<std::string> addAbsent(const SummaryMap& other) {
        std::vector<std::string> ids;
        bool disjoint = true;
        other.forEach([&](const std::string& id, const Summary&) {
            if (contains(id)) {
                disjoint = false;
            } else {
                ids.push_back(id);
            }
        });
        if (disjoint) {
            layers_.insert(layers_.end(), other.layers_.begin(), other.layers_.end());
            for (const auto& [id, summary] : other.own_)
                own_.emplace(id, summary);
            size_ += other.size_;
        } else {
            for (const auto& id : ids)
                add(id, *other.find(id));
        }
        return ids;
    }

    // The entries added since this map was made or last frozen: visit(id, summary).
    template <typename Visit>
    void forEachAdded(Visit&& visit) const {
        for (std::size_t i = frozenLayers_; i < layers_.size(); ++i) {
            for (const auto& [id, summary] : *layers_[i])
                visit(id, summary);
        }
        for (const auto& [id, summary] : own_)
            visit(id, summary);
    }

    // Shares the own layer as the newest layer. Layers are merged while one is at most twice the
    // size of the next newer one, so sizes more than halve upwards: a lookup visits a logarithmic
    // number of layers, and each entry is copied a logarithmic number of times in all.
    void freeze() {
        if (!own_.empty()) layers_.push_back(std::make_shared<const Layer>(std::move(own_)));
        own_ = Layer();
        while (layers_.size() >= 2 &&
               layers_[layers_.size() - 2]->size() <= 2 * layers_.back()->size()) {
            auto merged = std::make_shared<Layer>(*layers_[layers_.size() - 2]);
            merged->insert(layers_.back()->begin(), layers_.back()->end());
            layers_.pop_back();
            layers_.back() = std::move(merged);
        }
        frozenLayers_ = layers_.size();
    }

    bool operator==(const SummaryMap& other) const {
        if (size_ != other.size_) return false;
        bool equal = true;
        forEach([&](const std::string& id, const Summary& summary) {
            const Summary* theirs = equal ? other.find(id) : nullptr;
            equal = theirs && *theirs == summary;
        });
        return equal;
    }

  private:
    std::vector<std::shared_ptr<const Layer>> layers_;  // oldest first
    std::size_t frozenLayers_ = 0;                      // layers_ before the last freeze
    Layer own_;
    std::size_t size_ = 0;
};

}  // namespace corvane
