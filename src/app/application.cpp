#include "app/application.h"

#include "base/trace.h"
#include "protocol/receive_pack.h"
#include "protocol/upload_pack.h"

namespace corvane {

Application::Application(MainQueue& mainQueue) : mainQueue_(mainQueue) {}

AppState& Application::state() {
    std::call_once(stateCreated_, [this] {
        state_ =
            std::make_unique<AppState>(mainQueue_, cloud::openContainer(), Store::defaultRoot());
    });
    return *state_;
}

std::unique_ptr<Server> makeGitServer(AppState& appState) {
    CommandTable commands;
    commands["git-upload-pack"] = [&appState](GitSocket& socket,
                                              std::shared_ptr<Repository> repository) {
        return std::make_unique<UploadPack>(socket, std::move(repository),
                                            appState.backend().fetcher());
    };
    commands["git-receive-pack"] = [&appState](GitSocket& socket,
                                               std::shared_ptr<Repository> repository) {
        return std::make_unique<ReceivePack>(socket, std::move(repository), appState.backend());
    };
    auto lookup = [&appState](const std::string& name, const std::string& owner) {
        return appState.backend().fetchRepository(name, owner);
    };
    return std::make_unique<Server>(lookup, std::move(commands));
}

bool Application::didFinishLaunching(std::uint16_t port) {
    auto server = makeGitServer(state());
    if (!server->start(port)) return false;
    server_ = std::move(server);
    return true;
}

bool Application::shouldHandleReopen(bool hasVisibleWindows) {
    if (hasVisibleWindows) return false;
    state().send(event::ShowMainWindow{});
    return true;
}

void Application::acceptShare(const cloud::ShareMetadata& metadata) {
    AppState& appState = state();
    appState.backend().acceptShare(metadata, [&appState](Result<Done> result) {
        if (!result.ok()) appState.reportError("Failed to join repository", result.error());
        appState.reloadRepositories();
    });
}

void Application::createRepositoryMenuAction() {
    state().send(event::ShowCreateRepository{});
}

void Application::joinRepositoryMenuAction() {
    state().send(event::ShowJoinRepository{});
}

void Application::showMainWindow() {
    state().send(event::ShowMainWindow{});
}

void Application::deleteRepositoryMenuAction() {
    auto selected = state().selectedRepository();
    if (!selected->id().empty()) state().send(event::ShowConfirmDeleteRepository{selected});
}

void Application::reloadRepositoryMenuAction() {
    auto selected = state().selectedRepository();
    if (!selected->id().empty()) state().reloadRepository(selected);
    state().reloadRepositories();
}

void Application::reloadAllRepositoriesMenuAction() {
    state().reloadRepositories();
}

}  // namespace corvane
