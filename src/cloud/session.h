// Session: what every operation of one container needs: its connections, its asset cache and
// the account it acts for. Thread-safe: the pool guards itself, the account is set once under a
// lock, and the cache is only read after the container opened.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>

#include "cloud/account.h"
#include "cloud/asset_cache.h"
#include "cloud/connection_pool.h"

namespace corvane::cloud {

// Finds (or makes) the account a container acts for, on a connection of its own.
using SignIn = std::function<Account(Connection&)>;

class Session {
  public:
    Session(ConnectionFactory factory, AssetCache cache, SignIn signIn)
        : pool(std::move(factory)), assetCache(std::move(cache)), signIn_(std::move(signIn)) {}

    // The account; signs in on first use. A failed sign-in (the server down, the login
    // refused) throws and is tried again by the next call, so a store that comes back is used
    // without a restart.
    const Account& account();

    ConnectionPool pool;
    AssetCache assetCache;

  private:
    SignIn signIn_;
    std::mutex signInMutex_;
    std::optional<Account> account_;  // set once, under signInMutex_
    std::atomic<bool> signedIn_{false};
};

}  // namespace corvane::cloud
