#include "app/repository_commands.h"

#include <cstdio>
#include <memory>
#include <vector>

#include "app/command_support.h"
#include "app/participant_text.h"
#include "app/quoted_name.h"
#include "cloud/account.h"
#include "cloud/record_id.h"
#include "cloud/share_url.h"
#include "storage/pack_consolidator.h"
#include "storage/repository_name.h"

namespace corvane {

namespace {

struct RepositoryPath {
    std::string owner;
    std::string name;
};

RepositoryPath parsePath(const std::string& path) {
    auto slash = path.find('/');
    if (slash == std::string::npos) return {std::string(cloud::kCurrentUserDefaultName), path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

std::shared_ptr<Repository> find(Backend& backend, const RepositoryPath& path) {
    return backend.fetchRepository(path.name, path.owner);
}

// Contributors are the owner's to change; a shared repository is named with its owner.
std::shared_ptr<Repository> findOwn(Backend& backend, const std::string& name) {
    if (name.find('/') != std::string::npos) {
        throw Error("Only a repository's owner invites and removes contributors");
    }
    return find(backend, parsePath(name));
}

std::string shownPath(const Repository& repository) {
    if (repository.owner() == cloud::kCurrentUserDefaultName) return repository.name();
    return repository.owner() + "/" + repository.name();
}

const Participant* participantWithEmail(const Repository& repository, const std::string& email) {
    for (const auto& participant : repository.participants()) {
        if (participant.email && cloud::emailKey(*participant.email) == cloud::emailKey(email))
            return &participant;
    }
    return nullptr;
}

std::string shareLinkOf(const Repository& repository) {
    if (!repository.shareURL()) throw Error("the repository has no share link yet");
    return *repository.shareURL();
}

}  // namespace

int createRepository(const std::string& typed) {
    // The names the add sheet refuses, refused the same way.
    auto first = typed.find_first_not_of(" \t\r\n\v\f");
    auto last = typed.find_last_not_of(" \t\r\n\v\f");
    std::string name = first == std::string::npos ? "" : typed.substr(first, last - first + 1);
    if (auto problem = repositoryNameProblem(name)) throw UsageError(*problem);
    CommandSession session;
    Backend& backend = session.backend();
    try {
        // Only a repository that is not there may be created; one that cannot be read (a
        // damaged record, a store failure) is refused with its error, never created over.
        bool exists = true;
        try {
            find(backend, parsePath(name));
        } catch (const NotFound&) {
            exists = false;
        }
        if (exists) throw Error("a repository with this name already exists");
        auto repository = session.await<std::shared_ptr<Repository>>(
            [&](auto done) { backend.createRepository(name, done); });
        std::printf("%s\n", repository->url().c_str());
    } catch (const std::exception&) {
        throw described("Failed to create " + quotedName(name));
    }
    return 0;
}

int listRepositories() {
    CommandSession session;
    std::vector<std::shared_ptr<Repository>> repositories;
    try {
        repositories = session.await<std::vector<std::shared_ptr<Repository>>>(
            [&](auto done) { session.backend().fetchRepositories(done); });
    } catch (const std::exception&) {
        throw described("Failed to load repositories");
    }
    for (const auto& repository : repositories) {
        std::printf("%s\t%s\n", shownPath(*repository).c_str(), repository->url().c_str());
        if (repository->loadError())
            std::fprintf(stderr, "corvane: %s: %s\n", shownPath(*repository).c_str(),
                         repository->loadError()->c_str());
    }
    return 0;
}

int deleteRepository(const std::string& name) {
    CommandSession session;
    Backend& backend = session.backend();
    if (name.find('/') != std::string::npos) {
        throw Error("A shared repository is left, not deleted: corvane leave " + name);
    }
    try {
        auto repository = find(backend, parsePath(name));
        session.await<Done>([&](auto done) { backend.deleteRepository(repository, done); });
    } catch (const std::exception&) {
        throw described("Failed to delete " + quotedName(name));
    }
    return 0;
}

int repack(const std::string& path) {
    CommandSession session;
    auto where = parsePath(path);
    try {
        auto outcome = session.backend().consolidator().consolidate(where.name, where.owner, true);
        if (outcome.packsRetired == 0) {
            std::printf("Nothing to repack: %zu pack%s\n", outcome.packsBefore,
                        outcome.packsBefore == 1 ? "" : "s");
        } else {
            std::printf("Repacked %zu packs into %zu\n", outcome.packsRetired, outcome.packsAfter);
        }
    } catch (const std::exception&) {
        throw described("Failed to repack " + quotedName(path));
    }
    return 0;
}

int printShareLink(const std::string& path) {
    CommandSession session;
    try {
        std::printf("%s\n", shareLinkOf(*find(session.backend(), parsePath(path))).c_str());
    } catch (const std::exception&) {
        throw described("Failed to share " + quotedName(path));
    }
    return 0;
}

int invite(const std::string& name, const std::string& email) {
    CommandSession session;
    Backend& backend = session.backend();
    try {
        auto repository = findOwn(backend, name);
        session.await<Done>([&](auto done) { backend.addContributor(repository, email, done); });
        repository = findOwn(backend, name);
        const Participant* invited = participantWithEmail(*repository, email);
        if (invited && participantLacksAccount(*invited)) {
            std::fprintf(stderr,
                         "Nobody in this cloud store has the address %s yet: the invitation "
                         "waits until someone does.\n",
                         email.c_str());
        }
        std::printf("%s\n", shareLinkOf(*repository).c_str());
    } catch (const std::exception&) {
        throw described("Failed to add contributor " + quotedName(email));
    }
    return 0;
}

int listContributors(const std::string& path) {
    CommandSession session;
    std::shared_ptr<Repository> repository;
    try {
        repository = find(session.backend(), parsePath(path));
    } catch (const std::exception&) {
        throw described("Failed to load " + quotedName(path));
    }
    for (const auto& participant : repository->participants()) {
        std::printf("%s\t%s\t%s\n", participantName(participant).c_str(),
                    participant.email.value_or("").c_str(), participantStatus(participant).c_str());
    }
    return 0;
}

int uninvite(const std::string& name, const std::string& email) {
    CommandSession session;
    Backend& backend = session.backend();
    try {
        auto repository = findOwn(backend, name);
        const Participant* participant = participantWithEmail(*repository, email);
        if (!participant)
            throw Error("no contributor of " + quotedName(name) + " has this address");
        if (participant->isOwner) throw Error("the owner can not be removed");
        session.await<Done>(
            [&](auto done) { backend.deleteContributor(repository, *participant, done); });
    } catch (const std::exception&) {
        throw described("Failed to delete contributor " + quotedName(email));
    }
    return 0;
}

int join(const std::string& link) {
    CommandSession session;
    Backend& backend = session.backend();
    try {
        session.await<Done>([&](auto done) { backend.joinRepository(link, done); });
        auto token = cloud::shareToken(link);
        auto repositories = session.await<std::vector<std::shared_ptr<Repository>>>(
            [&](auto done) { backend.fetchRepositories(done); });
        for (const auto& repository : repositories) {
            if (repository->shareURL() && cloud::shareToken(*repository->shareURL()) == token) {
                std::printf("%s\n", repository->url().c_str());
                return 0;
            }
        }
        throw Error("the joined repository is not listed");
    } catch (const std::exception&) {
        throw described("Failed to join repository");
    }
}

int leave(const std::string& path) {
    if (path.find('/') == std::string::npos) {
        throw Error(quotedName(path) + " is your own repository: corvane delete " + path);
    }
    CommandSession session;
    Backend& backend = session.backend();
    try {
        auto repository = find(backend, parsePath(path));
        session.await<Done>([&](auto done) { backend.deleteRepository(repository, done); });
    } catch (const std::exception&) {
        throw described("Failed to leave " + quotedName(path));
    }
    return 0;
}

int whoami() {
    CommandSession session;
    auto identity = session.application.state().container().currentUserIdentity();
    Participant person;
    person.nameComponents = identity.nameComponents;
    person.email = identity.emailAddress;
    std::string shown = participantName(person);
    if (auto contact = participantContact(person); !contact.empty()) shown += " <" + contact + ">";
    std::printf("%s\n", shown.c_str());
    // Others reach this person's repositories under this name.
    if (identity.userRecordName) {
        std::printf("owner name in shared URLs: %s\n", identity.userRecordName->c_str());
    }
    return 0;
}

}  // namespace corvane
