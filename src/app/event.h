// Event: every change the user interface must reflect, with its payload. The cases are in a
// fixed order (a case's index in the variant is its number). EventDelegate: what a receiver
// implements; WeakEventDelegate: how the registry holds it without keeping it alive.
// Events are plain values, copied freely between threads.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>

#include "storage/repository.h"

namespace corvane {

namespace event {

struct RepositoryAdded {
    std::shared_ptr<Repository> repository;
};
struct RepositoryModified {
    std::string url;
};
struct RepositoryDeleted {
    std::string url;
};
struct RepositorySelected {
    std::optional<std::string> url;  // absent: nothing selected
};
struct BranchSelected {
    std::string name;
};
struct TagSelected {
    std::string name;
};
struct CommitSelected {
    std::string id;
};
struct ObjectsLoaded {
    std::set<std::string> ids;
};
struct ShowView {
    Repository::View view;
};
struct ShowConfirmDeleteRepository {
    std::shared_ptr<Repository> repository;
};
struct ShowError {
    std::string message;      // the operation that failed: "Failed to delete 'tools'"
    std::string description;  // what went wrong, as people read it
};
struct RepositoriesModified {};
struct ParticipantsModified {};
struct ShowMainWindow {};
struct ShowCreateRepository {};
struct ShowJoinRepository {};
struct ShowSignedOut {};

}  // namespace event

using Event =
    std::variant<event::RepositoryAdded, event::RepositoryModified, event::RepositoryDeleted,
                 event::RepositorySelected, event::BranchSelected, event::TagSelected,
                 event::CommitSelected, event::ObjectsLoaded, event::ShowView,
                 event::ShowConfirmDeleteRepository, event::ShowError, event::RepositoriesModified,
                 event::ParticipantsModified, event::ShowMainWindow, event::ShowCreateRepository,
                 event::ShowJoinRepository, event::ShowSignedOut>;

class EventDelegate {
  public:
    virtual ~EventDelegate() = default;
    // Called on the main thread, one event at a time.
    virtual void handleEvent(const Event& event) = 0;
};

struct WeakEventDelegate {
    std::weak_ptr<EventDelegate> value;
};

}  // namespace corvane
