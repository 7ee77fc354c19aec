// UploadPack: the server side of clone and fetch. Advertises the references, reads wants and
// haves, acknowledges, and streams a pack of every object the client lacks, each compressed
// whole, fetched on demand through the object fetcher.
// Runs on its connection's thread; compression workers it starts end before run() returns.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "protocol/git_socket.h"
#include "protocol/server_command.h"
#include "storage/object_fetcher.h"
#include "storage/repository.h"

namespace corvane {

class UploadPack : public ServerCommand {
  public:
    UploadPack(GitSocket& socket, std::shared_ptr<Repository> repository, ObjectFetcher& fetcher);

    void run() override;

    // The object ids to send for wants and haves, tags first, then commits, trees and blobs.
    // Fails with "Commit <id> not found on server" or "Tree <id> not found on server".
    static std::vector<std::string> selectObjects(const RepositoryContent& content,
                                                  const std::vector<std::string>& wants,
                                                  const std::vector<std::string>& haves);

    // The capability text offered on the first advertised line.
    static std::string capabilityText(const std::optional<std::string>& headReference);
    // The branch HEAD stands for: master, else main, else the first branch by name.
    static std::optional<std::string> headReference(const RepositoryContent& content);

  private:
    void advertiseRefs(const RepositoryContent& content);
    std::vector<std::string> readWants(Capabilities& capabilities);
    std::vector<std::string> negotiate(const RepositoryContent& content);
    void sendPack(const RepositoryContent& content, const std::vector<std::string>& wants,
                  const std::vector<std::string>& haves);

    GitSocket& socket_;
    std::shared_ptr<Repository> repository_;
    ObjectFetcher& fetcher_;
};

}  // namespace corvane
