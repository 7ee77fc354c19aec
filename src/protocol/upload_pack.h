// UploadPack: the server side of clone and fetch. Advertises the references (each annotated tag
// followed by the object it peels to, "refs/tags/v1^{}", so that clients follow tags), reads
// wants and haves, acknowledges, and streams a pack of every object the client lacks, each
// compressed whole, fetched on demand through the object fetcher. A shallow client's history
// is cut where it asked (shallow.h), a partial one gets what its filter keeps (object_filter.h).
// Runs on its connection's thread; compression workers it starts end before run() returns.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "protocol/git_socket.h"
#include "protocol/object_filter.h"
#include "protocol/server_command.h"
#include "protocol/shallow.h"
#include "storage/object_fetcher.h"
#include "storage/repository.h"

namespace corvane {

class UploadPack : public ServerCommand {
  public:
    UploadPack(GitSocket& socket, std::shared_ptr<Repository> repository, ObjectFetcher& fetcher);

    void run() override;

    // The object ids to send for wants and haves, tags first, then commits, trees and blobs;
    // the walk takes no parents of `boundaries` (a shallow client's) and leaves out what the
    // filter does (but never an object wanted by id). Fails with "Commit <id> not found on
    // server" or "Tree <id> not found on server".
    static std::vector<std::string> selectObjects(
        const RepositoryContent& content, const std::vector<std::string>& wants,
        const std::vector<std::string>& haves,
        const std::unordered_set<std::string>& boundaries = {}, const ObjectFilter& filter = {});

    // The annotated tags under refs/tags/ whose chains end at an object of `sent`, with the
    // tags in their chains, that `sent` lacks: what a client asking for include-tag also gets.
    static std::vector<std::string> followedTags(const RepositoryContent& content,
                                                 const std::vector<std::string>& sent);

    // The capability text offered on the first advertised line.
    static std::string capabilityText(const std::optional<std::string>& headReference);
    // The branch HEAD stands for: master, else main, else the first branch by name.
    static std::optional<std::string> headReference(const RepositoryContent& content);

  private:
    void advertiseRefs(const RepositoryContent& content);
    // The wants (none: the client only listed the references), with the capabilities of the
    // first and the lines about the depth of history that follow them.
    std::vector<std::string> readRequest(Capabilities& capabilities, DepthRequest& depth,
                                         ObjectFilter& filter);
    std::vector<std::string> negotiate(const RepositoryContent& content);
    void sendPack(const RepositoryContent& content, const std::vector<std::string>& wants,
                  const std::vector<std::string>& haves, const Capabilities& capabilities,
                  const std::unordered_set<std::string>& boundaries, const ObjectFilter& filter);

    GitSocket& socket_;
    std::shared_ptr<Repository> repository_;
    ObjectFetcher& fetcher_;
};

}  // namespace corvane
