#include "app/app_state.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "app/error_description.h"
#include "app/prefetch_order.h"
#include "app/quoted_name.h"
#include "app/share_thumbnail.h"
#include "base/trace.h"
#include "cloud/share_url.h"

namespace corvane {

AppState::AppState(MainQueue& mainQueue, std::unique_ptr<cloud::Container> container,
                   std::filesystem::path cacheRoot, Store::Timing cacheTiming)
    : mainQueue_(mainQueue),
      container_(std::move(container)),
      store_(std::make_unique<Store>(std::move(cacheRoot), cacheTiming)),
      selectedRepository_(std::make_shared<Repository>()) {
    Backend::Callbacks callbacks{
        [this](std::shared_ptr<Repository> repository) { updateRepository(repository); },
        [this](const std::set<std::string>& ids) { send(event::ObjectsLoaded{ids}); }};
    backend_ = std::make_unique<Backend>(*container_, *store_, mainQueue_, std::move(callbacks));
    auto thumbnail = shareThumbnail();
    backend_->setShareThumbnail(Bytes(thumbnail.begin(), thumbnail.end()));
}

void AppState::registerDelegate(std::weak_ptr<EventDelegate> receiver) {
    registry_.push_back({std::move(receiver)});
}

void AppState::send(Event event) {
    mainQueue_.async([this, event = std::move(event)] { deliver(event); });
}

void AppState::deliver(const Event& event) {
    std::erase_if(registry_, [](const WeakEventDelegate& entry) { return entry.value.expired(); });
    // A receiver registering during this delivery hears from the next event on.
    auto receivers = registry_;
    for (const auto& entry : receivers) {
        if (auto receiver = entry.value.lock()) receiver->handleEvent(event);
    }
}

void AppState::reloadRepositories() {
    backend_->fetchRepositories([this](Result<std::vector<std::shared_ptr<Repository>>> result) {
        if (!result.ok()) {
            reportError("Failed to load repositories", result.error());
            return;
        }
        showRepositories(result.value(), Announce::always);
    });
}

void AppState::refreshRepositories() {
    if (refreshing_ || listChanges_ > 0) return;
    refreshing_ = true;
    backend_->fetchRepositories([this](Result<std::vector<std::shared_ptr<Repository>>> result) {
        refreshing_ = false;
        if (result.ok() && listChanges_ == 0) showRepositories(result.value(), Announce::onChange);
    });
}

namespace {

// The same stored repository: its records carry the same change tags and its share the same
// people. (Someone answering an invitation changes the people, not the share's change tag.)
bool sameStored(const Repository& shown, const Repository& listed) {
    auto tag = [](const std::optional<cloud::Record>& record) {
        return record ? record->recordChangeTag : std::nullopt;
    };
    auto people = [](const Repository& repository) {
        const auto& share = repository.share();
        return share && share->share ? share->share->participants
                                     : std::vector<cloud::ShareParticipant>{};
    };
    return tag(shown.record()) && tag(shown.record()) == tag(listed.record()) &&
           tag(shown.share()) == tag(listed.share()) && people(shown) == people(listed);
}

// A repository read again keeps what the window showed of it (its head, its history); a head on
// a branch it does not have (master of a repository created empty, then pushed a main) moves to
// the branch it would start on.
void carryOver(const Repository* shown, Repository& fresh) {
    if (shown) fresh.setState(shown->state());
    if (!fresh.headCommit()) {
        if (auto branch = Repository::defaultBranch(*fresh.content())) fresh.setHead(*branch);
    }
}

}  // namespace

void AppState::showRepositories(const std::vector<std::shared_ptr<Repository>>& repositories,
                                Announce announce) {
    // What did not change stays the object shown, so that nothing redraws for it.
    std::map<std::string, std::shared_ptr<Repository>> table;
    std::vector<std::string> changed;
    for (const auto& listed : repositories) {
        auto shown = repositories_.find(listed->url());
        if (shown == repositories_.end()) {
            table.insert_or_assign(listed->url(), listed);
            continue;
        }
        if (shown->second == listed || sameStored(*shown->second, *listed)) {
            table.insert_or_assign(listed->url(), shown->second);
            continue;
        }
        carryOver(shown->second.get(), *listed);
        table.insert_or_assign(listed->url(), listed);
        changed.push_back(listed->url());
    }
    bool modified = announce == Announce::always || !changed.empty() ||
                    table.size() != repositories_.size() ||
                    !std::equal(table.begin(), table.end(), repositories_.begin(),
                                [](const auto& a, const auto& b) { return a.first == b.first; });
    repositories_ = std::move(table);
    if (modified) send(event::RepositoriesModified{});
    // The selection follows the table: a repository gone from the store is no longer shown, and
    // one changed in the store (a push from elsewhere) is shown as it is now.
    if (selectedRepository_->id().empty()) return;
    auto selected = repositories_.find(selectedRepository_->url());
    if (selected == repositories_.end()) {
        selectRepository(std::nullopt);
    } else if (selected->second != selectedRepository_) {
        selectedRepository_ = selected->second;
        send(event::RepositoryModified{selected->first});
    }
}

void AppState::reloadRepository(const std::shared_ptr<Repository>& repository) {
    auto generation = ++reloads_[repository->url()].started;
    auto show = [this, url = repository->url(), name = repository->name(),
                 generation](Result<std::shared_ptr<Repository>> result) {
        if (!result.ok()) {
            reportError("Failed to load " + quotedName(name), result.error());
            return;
        }
        // Only the newest reload is shown: one started earlier may answer later, or first, and
        // show what a later change of people has since replaced. While a change is still being
        // saved, its own reload follows.
        auto& reloads = reloads_[url];
        if (generation != reloads.started || !reloads.peopleChanges.empty()) return;
        updateRepository(result.value());
    };
    backend_->fetchRepository(repository->name(), repository->owner(), std::move(show));
}

void AppState::updateRepository(const std::shared_ptr<Repository>& repository) {
    const std::string& url = repository->url();
    auto known = repositories_.find(url);
    carryOver(
        known != repositories_.end() && known->second != repository ? known->second.get() : nullptr,
        *repository);
    repositories_.insert_or_assign(url, repository);
    if (selectedRepository_->url() == url) selectedRepository_ = repository;
    send(event::RepositoryModified{url});
}

void AppState::selectRepository(const std::optional<std::string>& url) {
    if (url && *url == selectedRepository_->url()) return;
    auto found = url ? repositories_.find(*url) : repositories_.end();
    if (found == repositories_.end()) {
        selectedRepository_ = std::make_shared<Repository>();
    } else {
        selectedRepository_ = found->second;
        prefetchQueue_.async([this, selection = ++selections_, repository = selectedRepository_] {
            prefetch(repository, selection);
        });
    }
    send(event::RepositorySelected{url});
}

void AppState::prefetch(const std::shared_ptr<Repository>& repository, std::uint64_t selection) {
    // Work done ahead of need, on a machine that may have two cores: it yields to the threads
    // that answer the window and the clients.
    static thread_local bool lowered =
        (::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 10), true);
    (void)lowered;
    if (selection != selections_) return;  // another repository was chosen since
    auto content = repository->content();
    auto& known = prefetched_[repository->url()];
    if (known.lock() == content) return;
    // Objects already cached need no request, nor an event saying they are here.
    std::vector<std::string> missing;
    for (auto& id : prefetchOrder(*repository)) {
        if (!store_->hasObject(id)) missing.push_back(std::move(id));
    }
    if (missing.empty())
        known = content;
    else
        backend_->fetcher().prefetchObjects(missing, *repository);
}

void AppState::createRepository(const std::string& name) {
    auto placeholder = std::make_shared<Repository>(name);
    const std::string url = placeholder->url();
    repositories_.insert_or_assign(url, placeholder);
    send(event::RepositoryAdded{placeholder});
    ++listChanges_;
    backend_->createRepository(name, [this, name, url](Result<std::shared_ptr<Repository>> result) {
        --listChanges_;
        if (!result.ok()) {
            reportError("Failed to create " + quotedName(name), result.error());
        } else if (const auto& created = result.value(); created->url() == url) {
            repositories_.insert_or_assign(url, created);
            send(event::RepositoryModified{url});
        } else {
            repositories_.erase(url);
            repositories_.insert_or_assign(created->url(), created);
            send(event::RepositoriesModified{});
        }
        reloadRepositories();
    });
}

void AppState::joinRepository(const std::string& shareURL) {
    std::shared_ptr<Repository> placeholder;
    std::optional<std::string> before;
    if (!selectedRepository_->id().empty()) before = selectedRepository_->url();
    if (auto title = cloud::shareTitle(shareURL);
        title && !repositories_.contains(Repository(*title).url())) {
        placeholder = std::make_shared<Repository>(*title);
        repositories_.insert_or_assign(placeholder->url(), placeholder);
        send(event::RepositoryAdded{placeholder});
    }
    ++listChanges_;
    backend_->joinRepository(shareURL, [this, placeholder, before](Result<Done> result) {
        --listChanges_;
        if (!result.ok()) {
            // Nothing was joined: the row shown meanwhile goes, and the selection is what it was.
            if (placeholder) {
                auto shown = repositories_.find(placeholder->url());
                if (shown != repositories_.end() && shown->second == placeholder) {
                    repositories_.erase(shown);
                    send(event::RepositoryDeleted{placeholder->url()});
                }
                if (selectedRepository_ == placeholder) selectRepository(before);
            }
            reportError("Failed to join repository", result.error());
        }
        reloadRepositories();
    });
}

void AppState::deleteRepository(const std::string& url) {
    auto found = repositories_.find(url);
    if (found == repositories_.end()) return;
    auto repository = found->second;
    repositories_.erase(found);
    send(event::RepositoryDeleted{url});
    if (selectedRepository_->url() == url) selectRepository(std::nullopt);
    ++listChanges_;
    backend_->deleteRepository(repository, [this, name = repository->name()](Result<Done> result) {
        --listChanges_;
        if (!result.ok()) reportError("Failed to delete " + quotedName(name), result.error());
        reloadRepositories();
    });
}

void AppState::addContributor(const std::shared_ptr<Repository>& repository,
                              const std::string& email) {
    auto participants = repository->participants();
    bool listed = std::any_of(participants.begin(), participants.end(),
                              [&](const Participant& entry) { return entry.email == email; });
    if (!listed) {
        // Shown at once as an invitation; the reload below brings the cloud's own entry.
        participants.push_back({std::nullopt, email, false, Participant::Status::pending, {}});
        repository->setParticipants(std::move(participants));
    }
    changePeople(
        repository,
        [this, repository, email](Completion<Done> done) {
            backend_->addContributor(repository, email, std::move(done));
        },
        "Failed to add contributor " + quotedName(email));
    send(event::ParticipantsModified{});
}

void AppState::deleteContributor(const std::shared_ptr<Repository>& repository,
                                 const Participant& participant) {
    auto sameParticipant = [&](const Participant& entry) {
        if (!entry.shareParticipant || !participant.shareParticipant) {
            return !entry.shareParticipant && !participant.shareParticipant;
        }
        return entry.shareParticipant->userIdentity.sameUser(
            participant.shareParticipant->userIdentity);
    };
    auto participants = repository->participants();
    std::erase_if(participants, sameParticipant);
    repository->setParticipants(std::move(participants));
    send(event::ParticipantsModified{});
    std::string message = "Failed to delete contributor ";
    if (participant.email) message += quotedName(*participant.email);
    changePeople(
        repository,
        [this, repository, participant](Completion<Done> done) {
            backend_->deleteContributor(repository, participant, std::move(done));
        },
        message);
}

void AppState::changePeople(const std::shared_ptr<Repository>& repository,
                            std::function<void(Completion<Done>)> save, std::string failure) {
    auto& changes = reloads_[repository->url()].peopleChanges;
    changes.push_back([this, repository, save = std::move(save), failure = std::move(failure)] {
        save([this, repository, failure](Result<Done> result) {
            if (!result.ok()) reportError(failure, result.error());
            auto& waiting = reloads_[repository->url()].peopleChanges;
            waiting.pop_front();
            if (!waiting.empty()) {
                auto next = waiting.front();
                next();
            }
            reloadRepository(repository);
        });
    });
    if (changes.size() == 1) {
        auto first = changes.front();
        first();
    }
}

void AppState::reportError(const std::string& message, const std::exception_ptr& error) {
    ErrorDescription description = describeError(error);
    if (description.signedOut) {
        trace(TraceModule::error, message);
        send(event::ShowSignedOut{});
        return;
    }
    trace(TraceModule::error, message + ": " + description.text);
    send(event::ShowError{message, description.text});
}

}  // namespace corvane
