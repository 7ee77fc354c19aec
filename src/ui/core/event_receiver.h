// EventReceiver: how a Qt view receives the application's events. The state's registry holds
// receivers weakly; a view owns its receiver, so the registration ends with the view.
#pragma once

#include <functional>
#include <memory>

#include "app/app_state.h"

namespace corvane::ui {

class EventReceiver : public EventDelegate {
  public:
    using Handler = std::function<void(const Event&)>;

    static std::shared_ptr<EventReceiver> registerWith(AppState& state, Handler handler) {
        auto receiver = std::make_shared<EventReceiver>(std::move(handler));
        state.registerDelegate(receiver);
        return receiver;
    }

    explicit EventReceiver(Handler handler) : handler_(std::move(handler)) {}
    void handleEvent(const Event& event) override { handler_(event); }

  private:
    Handler handler_;
};

// Whether the event changes what the views that follow the head show: another repository
// selected, another head chosen, or the selected repository changed.
inline bool changesShownHead(const AppState& state, const Event& event) {
    if (const auto* modified = std::get_if<event::RepositoryModified>(&event))
        return modified->url == state.selectedRepository()->url();
    return std::holds_alternative<event::RepositorySelected>(event) ||
           std::holds_alternative<event::BranchSelected>(event) ||
           std::holds_alternative<event::TagSelected>(event) ||
           std::holds_alternative<event::CommitSelected>(event);
}

}  // namespace corvane::ui
