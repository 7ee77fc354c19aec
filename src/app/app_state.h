// AppState: the one shared model of the application. Owns the cloud Backend and the object
// Store, keeps the repositories the user can see (keyed by clone URL) and the selection, runs the
// user-level flows (reload, select, create, join, delete, contributors) and delivers Events to
// the registered receivers.
//
// Threads: everything but send() and reportError() runs on the main thread, and the Backend
// completes on the main queue, so the table, the selection and the registry need no lock.
// send() may be called from any thread; delivery always happens later, on the main queue.
// Destroy it only after the main queue has stopped running tasks: queued deliveries and
// completions refer to it.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/event.h"
#include "base/queues.h"
#include "cloud/container.h"
#include "storage/backend.h"
#include "storage/store.h"

namespace corvane {

class AppState {
  public:
    AppState(MainQueue& mainQueue, std::unique_ptr<cloud::Container> container,
             std::filesystem::path cacheRoot, Store::Timing cacheTiming = {});
    AppState(const AppState&) = delete;
    AppState& operator=(const AppState&) = delete;

    MainQueue& mainQueue() { return mainQueue_; }
    Backend& backend() { return *backend_; }
    cloud::Container& container() { return *container_; }
    Store& store() { return *store_; }
    const std::map<std::string, std::shared_ptr<Repository>>& repositories() const {
        return repositories_;
    }
    // Never null: with nothing selected, an empty repository whose id is empty.
    const std::shared_ptr<Repository>& selectedRepository() const { return selectedRepository_; }

    // Adds a receiver after those already registered; the registry never keeps it alive.
    void registerDelegate(std::weak_ptr<EventDelegate> receiver);
    // Receivers in registration order; released ones leave at the next delivery.
    const std::vector<WeakEventDelegate>& registry() const { return registry_; }
    // Delivers the event later on the main queue to every live receiver, in registration order.
    // Events sent from one thread arrive in the order sent, never nested in one another.
    void send(Event event);

    void reloadRepositories();
    // The list brought up to date with the store, quietly: what others created, deleted or
    // pushed shows; a failure is left for the next try (or a reload) to say. Skipped while the
    // window's own creation, join or deletion is under way, whose rows it would take away.
    void refreshRepositories();
    void reloadRepository(const std::shared_ptr<Repository>& repository);
    // Puts a loaded (or just pushed) repository in the table, keeping the user's place in it.
    void updateRepository(const std::shared_ptr<Repository>& repository);
    void selectRepository(const std::optional<std::string>& url);
    void createRepository(const std::string& name);
    void joinRepository(const std::string& shareURL);
    void deleteRepository(const std::string& url);
    void addContributor(const std::shared_ptr<Repository>& repository, const std::string& email);
    void deleteContributor(const std::shared_ptr<Repository>& repository,
                           const Participant& participant);

    // Logs the failure and shows it (showError), or shows the signed-out state. Any thread.
    void reportError(const std::string& message, const std::exception_ptr& error);

  private:
    void deliver(const Event& event);
    // Shows the store's list, keeping the objects of repositories that did not change; a
    // reload asked for is announced even when nothing changed, a follow only when it did.
    enum class Announce { always, onChange };
    void showRepositories(const std::vector<std::shared_ptr<Repository>>& repositories,
                          Announce announce);
    // Saves changes of a repository's people one after another, in the order made, so the list
    // keeps that order; each failure is reported under `failure`.
    void changePeople(const std::shared_ptr<Repository>& repository,
                      std::function<void(Completion<Done>)> save, std::string failure);
    void prefetch(const std::shared_ptr<Repository>& repository, std::uint64_t selection);

    MainQueue& mainQueue_;
    std::unique_ptr<cloud::Container> container_;
    std::unique_ptr<Store> store_;
    std::unique_ptr<Backend> backend_;  // after the store: its threads stop before the store goes
    std::map<std::string, std::shared_ptr<Repository>> repositories_;
    std::shared_ptr<Repository> selectedRepository_;
    std::vector<WeakEventDelegate> registry_;
    // Per repository URL: reloads started (only the last one's answer is shown), and the
    // changes of its people not yet saved (the first is being saved). Main queue only.
    struct Reloads {
        std::uint64_t started = 0;
        std::deque<std::function<void()>> peopleChanges;
    };
    std::map<std::string, Reloads> reloads_;
    // Creations, joins and deletions under way, and whether a refresh is. Main queue only.
    int listChanges_ = 0;
    bool refreshing_ = false;
    // Selections so far; a prefetch for an earlier one is dropped.
    std::atomic<std::uint64_t> selections_{0};
    // Per repository URL, the content whose objects were last found all cached: choosing it
    // again costs nothing. Used on the prefetch thread only.
    std::map<std::string, std::weak_ptr<const RepositoryContent>> prefetched_;
    // Finds which of a selected repository's objects the cache lacks and hands them to the
    // fetcher: for a large history, a second of work the window must not wait for. Last: it
    // stops before everything it uses.
    WorkQueue prefetchQueue_{"prefetch", 1};
};

}  // namespace corvane
