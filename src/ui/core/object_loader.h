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

// What a view still wants read: loads made under a ticket are dropped, unread, once the view
// renews it because it shows other rows now. Without that, a large repository chosen a few times
// in a row leaves hundreds of reads queued ahead of the ones on screen.
class LoadTicket {
  public:
    using Flag = std::shared_ptr<const std::atomic<bool>>;

    LoadTicket() : wanted_(std::make_shared<std::atomic<bool>>(true)) {}
    void renew() {
        *wanted_ = false;
        wanted_ = std::make_shared<std::atomic<bool>>(true);
    }
    Flag flag() const { return wanted_; }

  private:
    std::shared_ptr<std::atomic<bool>> wanted_;
};

class ObjectLoader {
  public:
    // The object, or why it could not be had.
    using Done = std::function<void(const std::optional<Object>& object, const std::string& error)>;

    explicit ObjectLoader(AppState& state);
    ~ObjectLoader();
    ObjectLoader(const ObjectLoader&) = delete;
    ObjectLoader& operator=(const ObjectLoader&) = delete;

    // `wanted`: a view's ticket, or null for a read that is always wanted.
    void load(const std::shared_ptr<Repository>& repository, const std::string& id, Done done,
              LoadTicket::Flag wanted = nullptr);

    // Reads the object and hands it (or why it could not be had) to `work` on a loader thread,
    // for the decoding and sorting a view would otherwise do on the GUI thread; what `work`
    // returns runs on the GUI thread.
    using Work = std::function<std::function<void()>(const std::optional<Object>& object,
                                                     const std::string& error)>;
    void loadThen(const std::shared_ptr<Repository>& repository, const std::string& id, Work work,
                  LoadTicket::Flag wanted = nullptr);

  private:
    AppState& state_;
    // Read on the loader's threads; set on the GUI thread when the loader goes.
    std::shared_ptr<std::atomic<bool>> alive_;
    WorkQueue queue_;
};

}  // namespace corvane::ui
