// ReceivePack: the server side of push. Advertises the references, reads the update commands,
// reads the pack object by object (resolving ref-deltas, fetching bases the client assumes we
// have), summarises every object, keeps the pack as it came in stored packs and uploads them,
// moves the references, saves the metadata and reports the status. A push completes whole or fails
// with one message. Runs on its connection's thread. The pack is read without any lock; uploading
// and moving the references happen in the push's turn (Backend::lockPushes), and start again from
// the stored repository when a push elsewhere saved it first.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "protocol/git_socket.h"
#include "protocol/server_command.h"
#include "storage/backend.h"
#include "storage/repository.h"
#include "storage/stored_pack.h"

namespace corvane {

struct RefUpdate {
    std::string ref;
    std::optional<std::string> old;   // absent: the reference does not exist yet
    std::optional<std::string> new_;  // absent: delete the reference
    bool operator==(const RefUpdate&) const = default;
};

class ReceivePack : public ServerCommand {
  public:
    ReceivePack(GitSocket& socket, std::shared_ptr<Repository> repository, Backend& backend);

    void run() override;

    // The offered capabilities and the agent, space-separated.
    static std::string capabilityText();
    // One command line "<old> <new> <ref>"; fails with "Invalid receive-pack command".
    static RefUpdate parseCommand(std::string_view line);

  private:
    void advertiseRefs(const RepositoryContent& content);
    std::vector<RefUpdate> readCommands();
    // Reads the pack into the cache and the update's content; returns the ids received and
    // fills `existing` with the ids the repository had before.
    // Reads the pack into the cache and its objects' summaries into `received`.
    void readPack(RepositoryContent& received);
    // The objects read last, up to a few megabytes: the bases deltas name are mostly these.
    class RecentObjects {
      public:
        void keep(std::shared_ptr<const Object> object);
        std::shared_ptr<const Object> find(const std::string& id) const;

      private:
        std::deque<std::shared_ptr<const Object>> order_;
        std::unordered_map<std::string, std::shared_ptr<const Object>> byId_;
        std::size_t bytes_ = 0;
    };

    Object readObject(StoredPackBuilder& builder, const RecentObjects& recent);
    Object loadBase(const std::string& id, const StoredPackBuilder& builder,
                    const RecentObjects& recent);
    // Saves the stored packs of the push, adding their sizes to packSizes.
    void upload(std::size_t newObjects, std::map<std::string, std::int64_t>& packSizes);
    void report(const std::vector<RefUpdate>& commands);

    GitSocket& socket_;
    std::shared_ptr<Repository> repository_;
    Backend& backend_;
    std::vector<std::shared_ptr<const CachedStoredPack>> storedPacks_;  // the push's, in the cache
};

}  // namespace corvane
