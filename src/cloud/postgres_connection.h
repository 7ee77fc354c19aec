// PostgresConnection: the team engine, one connection to a PostgreSQL server through libpq,
// acting as the database role its address names. The store's functions on the server decide
// what the role reaches (team_store.sql); this class only runs statements, and reads the cloud
// code of a refusal from its SQLSTATE ("CV" and the code). One thread at a time (the pool's
// rule).
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "cloud/connection.h"

struct pg_conn;
struct pg_result;

namespace corvane::cloud {

class PostgresConnection final : public Connection {
  public:
    // Connects with any libpq connection string or URI; to a server on another machine with TLS
    // and channel binding (sslmode=require channel_binding=require) unless the address,
    // PGSSLMODE or a service chooses. When the server wants a
    // password the address does not give, `askPassword` (if any) is asked for one. A refused
    // login fails with code 9, a server that cannot be reached with code 3.
    static std::unique_ptr<PostgresConnection> open(
        const std::string& address, const std::function<std::string()>& askPassword = {});

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
    bool broken() const override;

    // Runs several statements, without parameters (the store's set-up).
    void executeScript(const std::string& sql);
    // The SCRAM verifier of the password, made here: the password itself never reaches the
    // server, nor its log.
    std::string passwordVerifier(const std::string& role, const std::string& password);
    // The address a person of the store uses: the server and database this connection reached
    // (by `address`, a connection string or URI, with its other settings such as sslmode), as
    // `role` with `password`, written as a postgresql:// URI. Code 12 when `address` cannot be
    // read.
    std::string memberAddress(const std::string& address, const std::string& role,
                              const std::string& password) const;

  protected:
    std::int64_t run(std::string_view sql, std::span<const SqlParam> params,
                     const RowHandler& onRow) override;

  private:
    // Throws the CloudError a failed result stands for.
    void check(const pg_result* result) const;

    pg_conn* connection_;
};

// Whether a connection to `address` must be encrypted (sslmode=require): when it names a server
// on another machine and neither it nor PGSSLMODE chooses a mode. libpq's own default would fall
// back to clear text.
bool tlsRequired(const std::string& address);

// The statement with each `?` outside quotes replaced by $1, $2, …, as the server numbers its
// parameters.
std::string numberedParameters(std::string_view sql);

}  // namespace corvane::cloud
