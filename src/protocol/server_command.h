// ServerCommand: what the server runs for one request (upload-pack for fetch and clone,
// receive-pack for push), and the table the server dispatches through.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace corvane {

class GitSocket;
class Repository;

class ServerCommand {
  public:
    virtual ~ServerCommand() = default;
    // The whole exchange of the command on its connection; throws Error on failure.
    virtual void run() = 0;
};

// Finds the repository a request names: (name, owner) → repository, or throws Error.
using RepositoryLookup =
    std::function<std::shared_ptr<Repository>(const std::string& name, const std::string& owner)>;

// Builds the command for a connection and the repository it asked for.
using CommandFactory =
    std::function<std::unique_ptr<ServerCommand>(GitSocket&, std::shared_ptr<Repository>)>;

// Command name ("git-upload-pack", "git-receive-pack") → factory.
using CommandTable = std::map<std::string, CommandFactory>;

}  // namespace corvane
