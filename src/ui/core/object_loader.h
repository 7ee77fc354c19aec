// ObjectLoader: reads objects of a repository from the object cache on threads of its own,
// fetching missing ones from the cloud first, and hands each back on the GUI thread, so that the
// views never wait for the cache, the store or the network.
//
// Threads: load() and the callbacks belong to the GUI thread. The "object_loader" threads are
// owned by the loader; destroying it drops the answers still to come and waits only for the
// reads already under way.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/app_state.h"
#include "base/queues.h"
#include "objects/object.h"

namespace corvane::ui {

class ObjectLoader {
  public:
    // The object, or why it could not be had.
    using Done = std::function<void(const std::optional<Object>& object, const std::string& error)>;

    explicit ObjectLoader(AppState& state);
    ~ObjectLoader();
    ObjectLoader(const ObjectLoader&) = delete;
    ObjectLoader& operator=(const ObjectLoader&) = delete;

    void load(const std::shared_ptr<Repository>& repository, const std::string& id, Done done);

  private:
    AppState& state_;
    // Read on the loader's threads; set on the GUI thread when the loader goes.
    std::shared_ptr<std::atomic<bool>> alive_;
    WorkQueue queue_;
};

}  // namespace corvane::ui
