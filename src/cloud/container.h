// Container: the record store as one account sees it: that account's private and shared
// databases, the people it can share with, and shares opened by URL. Open one per process with
// openContainer(); every operation is synchronous and throws CloudError with a cloud code.
// Thread-safe: any thread may use a container and its databases at any time.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "cloud/account.h"
#include "cloud/connection_pool.h"
#include "cloud/database.h"
#include "cloud/share.h"
#include "cloud/share_metadata.h"
#include "cloud/storage_usage.h"

namespace corvane::cloud {

class Session;

struct ContainerOptions {
    // Where fetched assets are written as files (see asset_cache.h).
    std::filesystem::path assetCacheDirectory;
    // The file's default account unless an e-mail address names another one.
    AccountChoice account;
};

class Container {
  public:
    // The embedded engine: one SQLite file, created when missing.
    static std::unique_ptr<Container> open(const std::filesystem::path& databaseFile,
                                           const ContainerOptions& options);
    // A team store on a PostgreSQL server (any libpq connection string or URI), as the role it
    // logs in with. Nothing is asked of the server yet: the first operation signs in, and while
    // the server cannot be reached or refuses the login, every operation fails (code 3, 9) and
    // the next one tries again.
    static std::unique_ptr<Container> connect(const std::string& serverAddress,
                                              const ContainerOptions& options);
    // Any engine: `connect` makes a connection whenever a thread needs one more. Signs in at
    // once.
    static std::unique_ptr<Container> open(ConnectionFactory connect,
                                           const ContainerOptions& options);

  private:
    struct Key {};  // only open() makes containers
    // SQLite signs in at once: the schema must be in place before any transaction.
    static std::unique_ptr<Container> make(ConnectionFactory connect,
                                           const ContainerOptions& options, bool signInNow);

  public:
    Container(Key, std::unique_ptr<Session> session);
    ~Container();
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

    Database& privateCloudDatabase() { return private_; }
    Database& sharedCloudDatabase() { return shared_; }

    // Signs in first when that has not happened yet (and throws when it fails).
    UserIdentity currentUserIdentity() const;

    // A participant to add to a share for the address; none when it is not an e-mail address.
    std::optional<ShareParticipant> fetchShareParticipant(std::string_view emailAddress);

    // What the share URL opens, with its root record when asked. Code 11 when the share does not
    // exist or does not list the account; 12 for a malformed URL.
    ShareMetadata fetchShareMetadata(std::string_view url, bool shouldFetchRootRecord);

    // Adds the share's zone to the account's shared database.
    void acceptShare(const ShareMetadata& metadata);

    StorageUsage storageUsage();

  private:
    std::unique_ptr<Session> session_;
    Database private_;
    Database shared_;
};

// The container this process uses, chosen by the environment: CORVANE_CLOUD holding a path
// names the SQLite file, otherwise $XDG_DATA_HOME/corvane/cloud.sqlite (or
// ~/.local/share/corvane/cloud.sqlite); fetched assets go to $XDG_CACHE_HOME/corvane/Assets (or
// ~/.cache/corvane/Assets). A postgresql:// or postgres:// address names a team store.
std::unique_ptr<Container> openContainer();

}  // namespace corvane::cloud
