// PostgresConnection: the team engine, one connection to a PostgreSQL server through libpq,
// acting as the database role its address names. The server's row-level security decides what
// the role reaches; this class only runs statements. Write transactions queue behind one
// transaction-scoped advisory lock, so writers see each other in the same order as on the
// embedded engine. One thread at a time (the pool's rule).
#pragma once

#include <memory>
#include <string>

#include "cloud/connection.h"

struct pg_conn;

namespace corvane::cloud {

class PostgresConnection final : public Connection {
  public:
    // Connects with any libpq connection string or URI. A refused login fails with code 9, a
    // server that cannot be reached with code 3.
    static std::unique_ptr<PostgresConnection> open(const std::string& address);

  private:
    struct Key {};  // only open() makes connections

  public:
    PostgresConnection(Key, pg_conn* connection) : connection_(connection) {}
    ~PostgresConnection() override;
    PostgresConnection(const PostgresConnection&) = delete;
    PostgresConnection& operator=(const PostgresConnection&) = delete;

    SqlDialect dialect() const override { return SqlDialect::postgresql; }
    void begin(TransactionMode mode) override;
    void commit() override;
    void rollback() noexcept override;
    void releaseFreeSpace() override {}  // the server's autovacuum does it
    void presentShareToken(std::string_view token) override;
    bool broken() const override;

  protected:
    std::int64_t run(std::string_view sql, std::span<const SqlParam> params,
                     const RowHandler& onRow) override;

  private:
    pg_conn* connection_;
};

// The address a person of the store uses: the server and database of `address` (a connection
// string or URI), as `role` with `password`, written as a postgresql:// URI. Code 12 when the
// address cannot be read.
std::string memberAddress(const std::string& address, const std::string& role,
                          const std::string& password);

// The statement with each `?` outside quotes replaced by $1, $2, …, as the server numbers its
// parameters.
std::string numberedParameters(std::string_view sql);

}  // namespace corvane::cloud
