// Connection: the narrow seam between the record store's SQL and a database engine. The store
// writes portable SQL with `?` placeholders; an engine runs it. One thread uses a connection at
// a time (the pool hands them out); engines throw CloudError with a cloud code on failure.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "base/bytes.h"

namespace corvane::cloud {

// Lists of values, for engines whose functions take arrays (PostgreSQL).
using TextList = std::span<const std::string>;
using IntegerList = std::span<const std::int64_t>;
using BlobList = std::span<const ByteView>;

// A bound parameter: NULL, INTEGER, TEXT, BLOB or a list. Views only: the caller's values outlive
// the statement because execute runs it to completion before it returns.
using SqlParam = std::variant<std::monostate, std::int64_t, std::string_view, ByteView, TextList,
                              IntegerList, BlobList>;

// The current result row. Values are views valid during the row callback only. Columns count
// from 0; a NULL reads as 0, "" or no bytes.
class SqlRow {
  public:
    virtual ~SqlRow() = default;
    virtual bool isNull(int column) const = 0;
    virtual std::int64_t integer(int column) const = 0;
    virtual std::string_view text(int column) const = 0;
    virtual ByteView blob(int column) const = 0;
};

using RowHandler = std::function<void(const SqlRow&)>;

enum class SqlDialect { sqlite, postgresql };
// Reads take a consistent snapshot; writes take the write lock up front so that two writers
// queue instead of failing when one upgrades.
enum class TransactionMode { read, write };

class Connection {
  public:
    virtual ~Connection() = default;

    virtual SqlDialect dialect() const = 0;

    // Runs one statement to completion, calling onRow for each result row; returns the number of
    // rows an INSERT, UPDATE or DELETE changed.
    std::int64_t execute(std::string_view sql, std::span<const SqlParam> params,
                         const RowHandler& onRow = {}) {
        return run(sql, params, onRow);
    }
    std::int64_t execute(std::string_view sql, std::initializer_list<SqlParam> params = {},
                         const RowHandler& onRow = {}) {
        return run(sql, std::span<const SqlParam>(params.begin(), params.size()), onRow);
    }

    virtual void begin(TransactionMode mode) = 0;
    virtual void commit() = 0;
    // Never throws; does nothing outside a transaction (an engine may have ended it on failure).
    virtual void rollback() noexcept = 0;
    // Hands pages freed by deletions back to the file system, where the engine keeps them.
    virtual void releaseFreeSpace() = 0;
    // True once the connection can no longer be used (the server went away); the pool drops it.
    virtual bool broken() const { return false; }

  protected:
    virtual std::int64_t run(std::string_view sql, std::span<const SqlParam> params,
                             const RowHandler& onRow) = 0;
};

// A transaction that rolls back unless committed.
class Transaction {
  public:
    Transaction(Connection& connection, TransactionMode mode) : connection_(connection) {
        connection_.begin(mode);
    }
    ~Transaction() {
        if (open_) connection_.rollback();
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit() {
        connection_.commit();
        open_ = false;
    }

  private:
    Connection& connection_;
    bool open_ = true;
};

// The first column of the first row, when there is one and it is not NULL.
std::optional<std::int64_t> queryInteger(Connection& connection, std::string_view sql,
                                         std::initializer_list<SqlParam> params);
std::optional<std::string> queryText(Connection& connection, std::string_view sql,
                                     std::initializer_list<SqlParam> params);

}  // namespace corvane::cloud
