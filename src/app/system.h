// System: the one place that builds Corvane: the object cache, the cloud container, the
// backend with its object fetcher, and the git server with its repository lookup and commands.
// Everything lower layers need from above is handed to them here.
//
// Threads: built and destroyed on the main thread. Destruction stops the server first (no new
// connections, open ones ended), then the backend's threads, then the cache's.
#pragma once

#include <cstdint>
#include <memory>

#include "base/queues.h"
#include "cloud/container.h"
#include "protocol/server.h"
#include "storage/backend.h"
#include "storage/store.h"

namespace corvane {

class System {
  public:
    // Opens the cloud store named by CORVANE_CLOUD (default: the embedded file) and the cache
    // under XDG_CACHE_HOME.
    System(MainQueue& mainQueue, Backend::Callbacks callbacks);
    ~System();
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    Backend& backend() { return *backend_; }
    Store& store() { return *store_; }

    // Starts the git daemon; logs and returns false when the port cannot be had.
    bool startServer(std::uint16_t port = Server::kDefaultPort);

  private:
    std::unique_ptr<cloud::Container> container_;
    std::unique_ptr<Store> store_;
    std::unique_ptr<Backend> backend_;
    std::unique_ptr<Server> server_;
};

}  // namespace corvane
