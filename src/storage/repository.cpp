#include "storage/repository.h"

#include <algorithm>
#include "objects/sha1.h"

#include "cloud/record_id.h"

namespace corvane {

namespace {

constexpr std::string_view kHeadsPrefix = "refs/heads/";
constexpr std::string_view kTagsPrefix = "refs/tags/";
constexpr std::string_view kSymbolicPrefix = "ref: ";

std::vector<std::string> namesUnder(const RepositoryContent& content, std::string_view prefix) {
    std::vector<std::string> names;
    for (auto it = content.refs.lower_bound(std::string(prefix));
         it != content.refs.end() && it->first.starts_with(prefix); ++it) {
        names.push_back(it->first.substr(prefix.size()));
    }
    return names;
}

}  // namespace

std::string Repository::cloneURL(const std::string& owner, const std::string& name) {
    if (owner == cloud::kCurrentUserDefaultName) return "git://localhost/" + name;
    return "git://localhost/" + owner + "/" + name;
}

Repository::Repository()
    : url_("git://localhost/"), content_(std::make_shared<const RepositoryContent>()) {}

Repository::Repository(const std::string& name)
    : id_(hexString(sha1(asBytes(name)))),
      owner_(cloud::kCurrentUserDefaultName),
      name_(name),
      url_(cloneURL(owner_, name)),
      content_(std::make_shared<const RepositoryContent>()) {}

Repository::Repository(std::string id, std::string owner, std::string name,
                       std::optional<cloud::Record> record, std::optional<cloud::Record> share,
                       RepositoryContent content, std::int64_t metaSize)
    : id_(std::move(id)),
      owner_(std::move(owner)),
      name_(std::move(name)),
      url_(cloneURL(owner_, name_)),
      share_(std::move(share)),
      metaSize_(metaSize),
      record_(std::move(record)) {
    content.freeze();  // so that a push's working copy shares it
    content_ = std::make_shared<const RepositoryContent>(std::move(content));
    if (record_) {
        modificationDate_ =
            record_->modificationDate ? record_->modificationDate : record_->creationDate;
    }
    if (share_ && share_->share) {
        shareURL_ = share_->share->url;
        for (const auto& participant : share_->share->participants) {
            Participant entry;
            entry.nameComponents = participant.userIdentity.nameComponents;
            entry.email = participant.userIdentity.emailAddress;
            entry.isOwner = participant.type == cloud::ParticipantType::owner;
            switch (participant.acceptanceStatus) {
                case cloud::AcceptanceStatus::pending:
                    entry.status = Participant::Status::pending;
                    break;
                case cloud::AcceptanceStatus::accepted:
                    entry.status = Participant::Status::accepted;
                    break;
                case cloud::AcceptanceStatus::removed:
                    entry.status = Participant::Status::removed;
                    break;
                default:
                    entry.status = Participant::Status::unknown;
            }
            entry.shareParticipant = participant;
            participants_.push_back(std::move(entry));
        }
    }
    if (auto branch = defaultBranch(*content_)) setHead(*branch);
}

std::optional<std::string> Repository::defaultBranch(const RepositoryContent& content) {
    for (const char* preferred : {"master", "main"}) {
        if (content.refs.contains(std::string(kHeadsPrefix) + preferred)) return preferred;
    }
    auto first = content.refs.lower_bound(std::string(kHeadsPrefix));
    if (first == content.refs.end() || !first->first.starts_with(kHeadsPrefix)) return std::nullopt;
    return first->first.substr(kHeadsPrefix.size());
}

std::shared_ptr<const RepositoryContent> Repository::content() const {
    std::lock_guard lock(mutex_);
    return content_;
}

std::optional<cloud::Record> Repository::record() const {
    std::lock_guard lock(mutex_);
    return record_;
}

void Repository::setRecord(cloud::Record record) {
    std::lock_guard lock(mutex_);
    record_ = std::move(record);
}

std::int64_t Repository::metaSize() const {
    std::lock_guard lock(mutex_);
    return metaSize_;
}

void Repository::setMetaSize(std::int64_t size) {
    std::lock_guard lock(mutex_);
    metaSize_ = size;
}

std::int64_t Repository::estimatedSize() const {
    auto current = content();
    std::int64_t size = metaSize();
    for (const auto& [id, packSize] : current->packs)
        size += packSize;
    return size;
}

Repository::State Repository::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

void Repository::setState(State state) {
    std::lock_guard lock(mutex_);
    if (state.head != state_.head) revList_.clear();
    state_ = std::move(state);
}

void Repository::setHead(const std::string& branch) {
    std::lock_guard lock(mutex_);
    state_.head = std::string(kSymbolicPrefix) + std::string(kHeadsPrefix) + branch;
    revList_.clear();
}

std::optional<std::string> Repository::headCommit() const {
    std::string head = state().head;
    if (!head.starts_with(kSymbolicPrefix)) return head;
    auto current = content();
    auto ref = current->refs.find(head.substr(kSymbolicPrefix.size()));
    if (ref == current->refs.end()) return std::nullopt;
    std::string id = ref->second;
    // A chain of tags is finite in a well-formed repository; the bound guards a corrupt one.
    for (std::size_t hops = 0; hops <= current->tags.size(); ++hops) {
        const PartialTag* tag = current->tags.find(id);
        if (!tag) break;
        id = tag->target;
    }
    return id;
}

std::vector<std::string> Repository::revList() const {
    std::string headText;
    std::shared_ptr<const RepositoryContent> current;
    {
        std::lock_guard lock(mutex_);
        if (!revList_.empty()) return revList_;
        headText = state_.head;
        current = content_;
    }
    std::vector<std::string> history;
    auto head = headCommit();
    if (head) {
        std::string id = *head;
        for (const PartialCommit* commit = current->commits.find(id); commit;
             commit = current->commits.find(id)) {
            history.push_back(id);
            // A cycle cannot happen with real hashes; the bound guards a corrupt summary.
            if (commit->parents.empty() || history.size() > current->commits.size()) break;
            id = commit->parents.front();
        }
    }
    std::lock_guard lock(mutex_);
    // Cache only what still describes the current HEAD and content.
    if (state_.head == headText && content_ == current) revList_ = history;
    return history;
}

std::vector<std::string> Repository::branchNames() const {
    return namesUnder(*content(), kHeadsPrefix);
}

std::vector<std::string> Repository::tagNames() const {
    return namesUnder(*content(), kTagsPrefix);
}

Repository::ContentUpdate::ContentUpdate(Repository& repository)
    : repository_(repository), lock_(repository.updateMutex_), working_(*repository.content()) {}

void Repository::ContentUpdate::publish() {
    working_.freeze();
    auto published = std::make_shared<const RepositoryContent>(std::move(working_));
    {
        std::lock_guard lock(repository_.mutex_);
        repository_.content_ = std::move(published);
        repository_.revList_.clear();
    }
    lock_.unlock();  // the next writer may start from what was just published
}

}  // namespace corvane
