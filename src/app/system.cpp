#include "app/system.h"

#include "protocol/receive_pack.h"
#include "protocol/upload_pack.h"

namespace corvane {

System::System(MainQueue& mainQueue, Backend::Callbacks callbacks)
    : container_(cloud::openContainer()),
      store_(std::make_unique<Store>(Store::defaultRoot())),
      backend_(std::make_unique<Backend>(*container_, *store_, mainQueue, std::move(callbacks))) {}

System::~System() {
    server_.reset();
    backend_.reset();
    store_.reset();
}

bool System::startServer(std::uint16_t port) {
    CommandTable commands;
    commands["git-upload-pack"] = [this](GitSocket& socket,
                                         std::shared_ptr<Repository> repository) {
        return std::make_unique<UploadPack>(socket, std::move(repository), *store_,
                                            backend_->fetcher());
    };
    commands["git-receive-pack"] = [this](GitSocket& socket,
                                          std::shared_ptr<Repository> repository) {
        return std::make_unique<ReceivePack>(socket, std::move(repository), *backend_);
    };
    auto lookup = [this](const std::string& name, const std::string& owner) {
        return backend_->fetchRepository(name, owner);
    };
    server_ = std::make_unique<Server>(lookup, std::move(commands));
    return server_->start(port);
}

}  // namespace corvane
