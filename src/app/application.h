// Application: the lifecycle, and the one place that builds Corvane. It creates the application
// state on first use (cloud store from CORVANE_CLOUD, object cache under XDG_CACHE_HOME), starts
// the git daemon when launching has finished (its lookup and commands reach the backend and the
// cache through the state), and implements the menu commands for the window.
//
// Threads: everything runs on the main thread. Destruction stops the daemon first (no new
// connections, open ones ended), then the state's threads; the main queue must have stopped.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "app/app_state.h"
#include "base/queues.h"
#include "cloud/share_metadata.h"
#include "protocol/server.h"

namespace corvane {

// The git daemon over the state's backend and object cache, not yet started. The state must
// outlive it.
std::unique_ptr<Server> makeGitServer(AppState& appState);

class Application {
  public:
    static constexpr const char* kWebsite = "https://corvane.org/";

    explicit Application(MainQueue& mainQueue);
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    AppState& state();

    // Starts the git daemon on 127.0.0.1 (the window always uses the default port). A port
    // that cannot be had is logged ("Failed to start server on port N") and the application
    // goes on without a daemon; false then.
    bool didFinishLaunching(std::uint16_t port = Server::kDefaultPort);
    // The port the daemon listens on; 0 without a daemon.
    std::uint16_t serverPort() const { return server_ ? server_->port() : 0; }
    // The user brought the application back: without a visible window, show the main one.
    bool shouldHandleReopen(bool hasVisibleWindows);
    // A share the user accepted outside the application (an invitation link opened).
    void acceptShare(const cloud::ShareMetadata& metadata);

    void createRepositoryMenuAction();
    void joinRepositoryMenuAction();
    void showMainWindow();
    void deleteRepositoryMenuAction();
    void reloadRepositoryMenuAction();
    void reloadAllRepositoriesMenuAction();

  private:
    MainQueue& mainQueue_;
    std::once_flag stateCreated_;
    std::unique_ptr<AppState> state_;
    std::unique_ptr<Server> server_;  // after the state: stops before the state goes
};

}  // namespace corvane
