// ConnectionPool: hands each operation a connection of its own, so threads of one process use
// the store at the same time (the engine queues writers). Thread-safe: one mutex guards the idle
// list; connections are made and used outside it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "cloud/connection.h"

namespace corvane::cloud {

using ConnectionFactory = std::function<std::unique_ptr<Connection>()>;

class ConnectionPool {
  public:
    // Connections kept open between operations; more are made when threads need them.
    static constexpr std::size_t kMaxIdle = 4;

    explicit ConnectionPool(ConnectionFactory factory) : factory_(std::move(factory)) {}
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    // A connection for the lifetime of the lease, returned to the pool afterwards.
    class Lease {
      public:
        Lease(ConnectionPool& pool, std::unique_ptr<Connection> connection)
            : pool_(&pool), connection_(std::move(connection)) {}
        Lease(Lease&&) noexcept = default;
        Lease& operator=(Lease&&) = delete;
        ~Lease() {
            if (connection_) pool_->giveBack(std::move(connection_));
        }
        Connection& operator*() const { return *connection_; }
        Connection* operator->() const { return connection_.get(); }

      private:
        ConnectionPool* pool_;
        std::unique_ptr<Connection> connection_;
    };

    Lease acquire();

  private:
    void giveBack(std::unique_ptr<Connection> connection);

    ConnectionFactory factory_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> idle_;  // guarded by mutex_
};

}  // namespace corvane::cloud
