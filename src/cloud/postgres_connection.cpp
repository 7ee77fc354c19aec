#include "cloud/postgres_connection.h"

#include <libpq-fe.h>

#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <vector>

#include "base/error.h"
#include "cloud/error_codes.h"

namespace corvane::cloud {
namespace {

// Type ids of the server's built-in types that results carry (pg_type.oid).
constexpr Oid kBoolOid = 16;
constexpr Oid kInt8Oid = 20;
constexpr Oid kInt2Oid = 21;
constexpr Oid kInt4Oid = 23;

// Any number, the same in every process: the one lock that orders writers.
constexpr std::string_view kWriterLock = "SELECT pg_advisory_xact_lock(4937315566214729)";

std::string firstLine(const char* text) {
    std::string line = text ? text : "";
    // Server messages begin with their severity and may run over several lines.
    for (std::string_view prefix : {"FATAL:  ", "ERROR:  "}) {
        if (line.starts_with(prefix)) line.erase(0, prefix.size());
    }
    if (auto end = line.find('\n'); end != std::string::npos) line.erase(end);
    return line;
}

// A failed login, told apart from a server that is not there.
bool isLoginRefused(std::string_view message) {
    for (std::string_view sign :
         {"authentication failed", "password", "role \"", "pg_hba.conf", "permission denied"}) {
        if (message.find(sign) != std::string_view::npos) return true;
    }
    return false;
}

int cloudCode(std::string_view state) {
    if (state.starts_with("08") || state == "57P01" || state == "57P02" || state == "57P03")
        return kNetworkFailure;
    if (state.starts_with("28")) return kNotAuthenticated;
    if (state == "42501") return kPermissionFailure;  // row-level security or a missing grant
    if (state == "53100") return kQuotaExceeded;      // disk full
    if (state.starts_with("53") || state == "40001" || state == "40P01" || state == "55P03")
        return kServiceUnavailable;
    return kInternalError;
}

std::uint64_t bigEndian(const char* data, int size) {
    std::uint64_t value = 0;
    for (int i = 0; i < size; ++i)
        value = (value << 8) | static_cast<unsigned char>(data[i]);
    return value;
}

// Results arrive in binary form: integers big-endian, text and bytea as their raw bytes.
class PostgresRow final : public SqlRow {
  public:
    PostgresRow(const PGresult* result, int row) : result_(result), row_(row) {}

    bool isNull(int column) const override { return PQgetisnull(result_, row_, column) != 0; }
    std::int64_t integer(int column) const override {
        if (isNull(column)) return 0;
        const char* data = PQgetvalue(result_, row_, column);
        switch (PQftype(result_, column)) {
            case kInt8Oid:
                return static_cast<std::int64_t>(bigEndian(data, 8));
            case kInt4Oid:
                return static_cast<std::int32_t>(bigEndian(data, 4));
            case kInt2Oid:
                return static_cast<std::int16_t>(bigEndian(data, 2));
            case kBoolOid:
                return data[0] != 0;
            default:
                throw CloudError(kInternalError, "The cloud database returned a column of type " +
                                                     std::to_string(PQftype(result_, column)) +
                                                     " where a whole number was expected");
        }
    }
    std::string_view text(int column) const override {
        return {PQgetvalue(result_, row_, column),
                static_cast<std::size_t>(PQgetlength(result_, row_, column))};
    }
    ByteView blob(int column) const override {
        return {reinterpret_cast<const std::uint8_t*>(PQgetvalue(result_, row_, column)),
                static_cast<std::size_t>(PQgetlength(result_, row_, column))};
    }

  private:
    const PGresult* result_;
    int row_;
};

struct ResultDeleter {
    void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ResultDeleter>;

}  // namespace

std::string numberedParameters(std::string_view sql) {
    std::string out;
    out.reserve(sql.size() + 16);
    int number = 0;
    char quote = 0;
    for (char c : sql) {
        if (quote) {
            if (c == quote) quote = 0;
        } else if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == '?') {
            out += '$';
            out += std::to_string(++number);
            continue;
        }
        out += c;
    }
    return out;
}

namespace {

std::string percentEncoded(std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

}  // namespace

std::string memberAddress(const std::string& address, const std::string& role,
                          const std::string& password) {
    char* error = nullptr;
    PQconninfoOption* options = PQconninfoParse(address.c_str(), &error);
    if (!options) {
        std::string reason = error ? firstLine(error) : "out of memory";
        PQfreemem(error);
        throw CloudError(kInvalidArguments, "Cannot read the address " + address + ": " + reason);
    }
    std::string host, port, database, rest;
    for (auto* option = options; option->keyword; ++option) {
        if (!option->val || !*option->val) continue;
        std::string_view keyword = option->keyword;
        if (keyword == "host") {
            host = option->val;
        } else if (keyword == "port") {
            port = option->val;
        } else if (keyword == "dbname") {
            database = option->val;
        } else if (keyword != "user" && keyword != "password") {
            rest += (rest.empty() ? "?" : "&") + std::string(keyword) + "=" +
                    percentEncoded(option->val);
        }
    }
    PQconninfoFree(options);
    std::string uri = "postgresql://" + percentEncoded(role) + ":" + percentEncoded(password) +
                      "@" + percentEncoded(host);
    if (!port.empty()) uri += ":" + port;
    return uri + "/" + percentEncoded(database) + rest;
}

std::unique_ptr<PostgresConnection> PostgresConnection::open(const std::string& address) {
    // Defaults first: whatever the address says overrides them.
    std::array<const char*, 4> keywords{"application_name", "connect_timeout", "dbname", nullptr};
    std::array<const char*, 4> values{"corvane", "15", address.c_str(), nullptr};
    PGconn* connection = PQconnectdbParams(keywords.data(), values.data(), 1);
    if (!connection) throw CloudError(kInternalError, "Out of memory connecting to the cloud");
    if (PQstatus(connection) != CONNECTION_OK) {
        auto reason = firstLine(PQerrorMessage(connection));
        PQfinish(connection);
        auto message = "Cannot connect to the cloud database: " + reason;
        int code = isLoginRefused(reason) ? kNotAuthenticated : kNetworkUnavailable;
        if (reason.find("database \"") != std::string::npos) code = kBadContainer;
        throw CloudError(code, message, message);
    }
    // Notices (a table that already exists, say) are the server talking to itself.
    PQsetNoticeProcessor(
        connection, [](void*, const char*) {}, nullptr);
    auto result = std::make_unique<PostgresConnection>(Key{}, connection);
    // Dates are Unix milliseconds computed here; the session's own settings only matter for text.
    result->execute("SET client_encoding = 'UTF8'");
    return result;
}

PostgresConnection::~PostgresConnection() {
    PQfinish(connection_);
}

void PostgresConnection::begin(TransactionMode mode) {
    if (mode == TransactionMode::read) {
        // One snapshot for every statement of the transaction, as SQLite's reads see.
        execute("BEGIN ISOLATION LEVEL REPEATABLE READ");
        return;
    }
    execute("BEGIN");
    execute(kWriterLock);
}

void PostgresConnection::commit() {
    execute("COMMIT");
}

void PostgresConnection::rollback() noexcept {
    if (PQstatus(connection_) != CONNECTION_OK) return;
    if (PQtransactionStatus(connection_) == PQTRANS_IDLE) return;
    PQclear(PQexec(connection_, "ROLLBACK"));
}

void PostgresConnection::presentShareToken(std::string_view token) {
    execute("SELECT set_config('corvane.share_token', ?, true)", {token});
}

bool PostgresConnection::broken() const {
    return PQstatus(connection_) != CONNECTION_OK;
}

std::int64_t PostgresConnection::run(std::string_view sql, std::span<const SqlParam> params,
                                     const RowHandler& onRow) {
    auto statement = numberedParameters(sql);
    std::vector<std::string> numbers(params.size());
    std::vector<const char*> values(params.size(), nullptr);
    std::vector<int> lengths(params.size(), 0);
    std::vector<int> formats(params.size(), 0);
    std::vector<std::string> texts(params.size());
    for (std::size_t i = 0; i < params.size(); ++i) {
        const auto& param = params[i];
        if (auto* integer = std::get_if<std::int64_t>(&param)) {
            numbers[i] = std::to_string(*integer);
            values[i] = numbers[i].c_str();
        } else if (auto* text = std::get_if<std::string_view>(&param)) {
            // Text parameters are read up to their terminating NUL.
            texts[i] = std::string(*text);
            values[i] = texts[i].c_str();
        } else if (auto* bytes = std::get_if<ByteView>(&param)) {
            values[i] = bytes->empty() ? "" : reinterpret_cast<const char*>(bytes->data());
            lengths[i] = static_cast<int>(bytes->size());
            formats[i] = 1;
        }
    }
    Result result(PQexecParams(connection_, statement.c_str(), static_cast<int>(params.size()),
                               nullptr, values.data(), lengths.data(), formats.data(), 1));
    auto status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        const char* state = result ? PQresultErrorField(result.get(), PG_DIAG_SQLSTATE) : nullptr;
        auto reason =
            firstLine(result ? PQresultErrorMessage(result.get()) : PQerrorMessage(connection_));
        if (broken() || !state) {
            auto message = "The connection to the cloud database was lost: " + reason;
            throw CloudError(kNetworkFailure, message, message);
        }
        auto message = "Cloud database: " + reason;
        int code = cloudCode(state);
        // Texts of the server that a person can act on are shown as they are.
        std::optional<std::string> shown;
        if (code == kInternalError) shown = message;
        throw CloudError(code, message, shown);
    }
    if (onRow) {
        int rows = PQntuples(result.get());
        for (int row = 0; row < rows; ++row)
            onRow(PostgresRow(result.get(), row));
    }
    const char* changed = PQcmdTuples(result.get());
    std::int64_t count = 0;
    if (changed && *changed) std::from_chars(changed, changed + std::strlen(changed), count);
    return count;
}

}  // namespace corvane::cloud
