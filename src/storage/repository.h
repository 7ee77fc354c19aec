// Repository: the in-memory picture of one repository kept in the cloud: identity, cloud
// records, references and a summary of every object, without the object contents.
//
// Thread safety. The references and summaries live in an immutable RepositoryContent snapshot
// behind a shared_ptr: readers (the window, clones, fetches) take the current snapshot and walk it
// without any lock while it stays valid for them. A push is the only writer: it holds the
// repository's update lock (ContentUpdate) for its whole run, edits its own copy and publishes it
// in one step, so readers never see a half-applied push and two pushes never interleave.
// The view state (HEAD, selected view, history cache) and metaSize have their own small lock.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cloud/record.h"
#include "cloud/share.h"
#include "storage/summaries.h"

namespace corvane {

// A contributor of a shared repository, as the share lists it.
struct Participant {
    enum class Status { unknown, pending, accepted, removed };

    std::optional<cloud::NameComponents> nameComponents;
    std::optional<std::string> email;
    bool isOwner = false;
    Status status = Status::unknown;
    std::optional<cloud::ShareParticipant> shareParticipant;  // needed to remove it again
};

class Repository {
  public:
    enum class View { files, commits, branches, tags, contributors };
    enum class Status { ready, creating };
    struct State {
        std::string head = "ref: refs/heads/master";
        View selectedView = View::files;
        bool operator==(const State&) const = default;
    };
    using Clock = std::chrono::system_clock;

    // The placeholder shown before anything is loaded.
    Repository();
    // A repository about to be created under the current user.
    explicit Repository(const std::string& name);
    // A repository loaded from its records; HEAD is chosen from the branches.
    Repository(std::string id, std::string owner, std::string name,
               std::optional<cloud::Record> record, std::optional<cloud::Record> share,
               RepositoryContent content, std::int64_t metaSize);

    const std::string& id() const { return id_; }
    const std::string& owner() const { return owner_; }
    const std::string& name() const { return name_; }
    const std::string& url() const { return url_; }
    const std::optional<Clock::time_point>& modificationDate() const { return modificationDate_; }
    const std::optional<std::string>& shareURL() const { return shareURL_; }
    // Read and changed on the main thread only (the contributor flows change it at once, before
    // the cloud confirms, and a reload puts the cloud's list back).
    const std::vector<Participant>& participants() const { return participants_; }
    void setParticipants(std::vector<Participant> participants) {
        participants_ = std::move(participants);
    }
    // The repository record as last read or saved; its change tag tells whether this object
    // still shows what is stored.
    std::optional<cloud::Record> record() const;
    // The record as the store saved it with this object's content, with its new change tag, so
    // that the next save is not refused as stale. Called by the saving push.
    void setRecord(cloud::Record record);
    // The share record ("SHARE"); its `share` holds the sharing state.
    const std::optional<cloud::Record>& share() const { return share_; }

    // The current references and summaries; stays valid and unchanged for the holder.
    std::shared_ptr<const RepositoryContent> content() const;

    // Why the stored records could not be read (a newer layout, damage): such a repository is
    // listed with its error and empty; set once, before the object is shared.
    const std::optional<std::string>& loadError() const { return loadError_; }
    void setLoadError(std::string error) { loadError_ = std::move(error); }

    std::int64_t metaSize() const;
    void setMetaSize(std::int64_t size);
    // metaSize plus the stored size of every pack.
    std::int64_t estimatedSize() const;

    State state() const;
    void setState(State state);
    // Symbolic HEAD on refs/heads/<branch>.
    void setHead(const std::string& branch);
    // The commit HEAD resolves to, through any chain of annotated tags.
    std::optional<std::string> headCommit() const;
    // First-parent history of HEAD, newest first; cached until HEAD changes.
    std::vector<std::string> revList() const;
    // Branch and tag names in reference-name order.
    std::vector<std::string> branchNames() const;
    std::vector<std::string> tagNames() const;

    // Exclusive right to change the content: a push holds one for its whole run.
    class ContentUpdate {
      public:
        explicit ContentUpdate(Repository& repository);
        // The push's working copy, started from the content current when the update began.
        RepositoryContent& content() { return working_; }
        // Makes the working copy the repository's content, in one step; the update is then
        // finished. An update dropped without publishing changes nothing.
        void publish();

      private:
        Repository& repository_;
        std::unique_lock<std::mutex> lock_;
        RepositoryContent working_;
    };

    // "git://localhost/<name>", or "git://localhost/<owner>/<name>" for a shared repository.
    static std::string cloneURL(const std::string& owner, const std::string& name);
    // The branch a repository starts on, for the window and for clients alike: master, else
    // main, else the first branch in name order; none without branches.
    static std::optional<std::string> defaultBranch(const RepositoryContent& content);

  private:
    std::string id_;
    std::string owner_;
    std::string name_;
    std::string url_;
    std::optional<Clock::time_point> modificationDate_;
    std::optional<std::string> shareURL_;
    std::vector<Participant> participants_;
    std::optional<cloud::Record> share_;
    std::optional<std::string> loadError_;

    std::mutex updateMutex_;  // held by the one ContentUpdate at a time

    mutable std::mutex mutex_;
    std::shared_ptr<const RepositoryContent> content_;  // guarded by mutex_
    std::int64_t metaSize_ = 0;                         // guarded by mutex_
    std::optional<cloud::Record> record_;               // guarded by mutex_
    State state_;                                       // guarded by mutex_
    mutable std::vector<std::string> revList_;          // guarded by mutex_
};

}  // namespace corvane
