// Session: what every operation of one container needs: its connections, its asset cache and
// the account it acts for. Thread-safe: the pool guards itself, and the rest is set while the
// container opens and only read afterwards.
#pragma once

#include "cloud/account.h"
#include "cloud/asset_cache.h"
#include "cloud/connection_pool.h"

namespace corvane::cloud {

struct Session {
    Session(ConnectionFactory factory, AssetCache cache)
        : pool(std::move(factory)), assetCache(std::move(cache)) {}

    ConnectionPool pool;
    AssetCache assetCache;
    Account account;
};

}  // namespace corvane::cloud
