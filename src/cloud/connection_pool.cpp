#include "cloud/connection_pool.h"

namespace corvane::cloud {

ConnectionPool::Lease ConnectionPool::acquire() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            auto connection = std::move(idle_.back());
            idle_.pop_back();
            return Lease(*this, std::move(connection));
        }
    }
    return Lease(*this, factory_());
}

void ConnectionPool::giveBack(std::unique_ptr<Connection> connection) {
    // A lease may end while an exception unwinds through a transaction; never reuse one open.
    connection->rollback();
    // A connection the server dropped is replaced by a fresh one on the next acquire.
    if (connection->broken()) return;
    std::lock_guard lock(mutex_);
    if (idle_.size() < kMaxIdle) idle_.push_back(std::move(connection));
}

}  // namespace corvane::cloud
