#include "cloud/container.h"

#include "cloud/asset_store.h"
#include "cloud/cloud_location.h"
#include "cloud/error_codes.h"
#include "cloud/postgres_connection.h"
#include "cloud/schema.h"
#include "cloud/session.h"
#include "cloud/share_access.h"
#include "cloud/sqlite_checkpointer.h"
#include "cloud/sqlite_connection.h"
#include "cloud/team_operations.h"

namespace corvane::cloud {

namespace {

Account signIn(Connection& connection, const AccountChoice& choice) {
    if (connection.dialect() == SqlDialect::postgresql) {
        // A team store's people neither change its layout nor choose who they are: the login
        // is the identity.
        return teamSignIn(connection);
    }
    prepareSchema(connection);
    return openAccount(connection, choice);
}

}  // namespace

std::unique_ptr<Container> Container::open(const std::filesystem::path& databaseFile,
                                           const ContainerOptions& options) {
    auto checkpointer = std::make_shared<SqliteCheckpointer>(databaseFile);
    return open(
        [databaseFile, checkpointer] { return SqliteConnection::open(databaseFile, checkpointer); },
        options);
}

std::unique_ptr<Container> Container::connect(const std::string& serverAddress,
                                              const ContainerOptions& options) {
    // The server may be down for now: the person is signed in on first use.
    return make([serverAddress] { return PostgresConnection::open(serverAddress); }, options,
                false);
}

std::unique_ptr<Container> Container::open(ConnectionFactory connect,
                                           const ContainerOptions& options) {
    return make(std::move(connect), options, true);
}

std::unique_ptr<Container> Container::make(ConnectionFactory connect,
                                           const ContainerOptions& options, bool signInNow) {
    auto session = std::make_unique<Session>(
        std::move(connect), AssetCache(options.assetCacheDirectory),
        [choice = options.account](Connection& connection) { return signIn(connection, choice); });
    if (signInNow) session->account();
    session->assetCache.sweep();
    return std::make_unique<Container>(Key{}, std::move(session));
}

Container::Container(Key, std::unique_ptr<Session> session)
    : session_(std::move(session)),
      private_(*session_, DatabaseScope::privateScope),
      shared_(*session_, DatabaseScope::sharedScope) {}

Container::~Container() = default;

UserIdentity Container::currentUserIdentity() const {
    return session_->account().identity();
}

std::optional<ShareParticipant> Container::fetchShareParticipant(std::string_view emailAddress) {
    return lookUpParticipant(*session_, emailAddress);
}

ShareMetadata Container::fetchShareMetadata(std::string_view url, bool shouldFetchRootRecord) {
    return cloud::fetchShareMetadata(*session_, url, shouldFetchRootRecord);
}

void Container::acceptShare(const ShareMetadata& metadata) {
    cloud::acceptShare(*session_, metadata);
}

StorageUsage Container::storageUsage() {
    session_->account();
    auto connection = session_->pool.acquire();
    if (connection->dialect() == SqlDialect::postgresql) return teamStorageUsage(*connection);
    return AssetStore(*connection).usage();
}

std::unique_ptr<Container> openContainer() {
    auto location = cloudLocation();
    if (location.serverAddress)
        return Container::connect(*location.serverAddress,
                                  ContainerOptions{location.assetCacheDirectory, AccountChoice{}});
    return Container::open(location.databaseFile,
                           ContainerOptions{location.assetCacheDirectory, AccountChoice{}});
}

}  // namespace corvane::cloud
