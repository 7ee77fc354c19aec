#include "cloud/postgres_connection.h"

#include <libpq-fe.h>

#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <span>
#include <tuple>
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
constexpr Oid kTextOid = 25;
constexpr Oid kByteaOid = 17;
constexpr Oid kTextArrayOid = 1009;
constexpr Oid kInt8ArrayOid = 1016;
constexpr Oid kByteaArrayOid = 1001;

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
    // The team store's functions report cloud codes themselves: "CV" and three digits.
    if (state.size() == 5 && state.starts_with("CV")) {
        int code = 0;
        auto digits = state.substr(2);
        if (std::from_chars(digits.data(), digits.data() + digits.size(), code).ec == std::errc{})
            return code;
    }
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

void appendBigEndian(std::string& out, std::uint64_t value, int size) {
    for (int shift = (size - 1) * 8; shift >= 0; shift -= 8)
        out += static_cast<char>((value >> shift) & 0xff);
}

// An array in the server's binary form: dimensions 1, no NULLs, the element type, the length
// and lower bound 1, then each element as a 4-byte length and its bytes (all big-endian).
template <typename Element>
std::string binaryArray(std::span<const Element> elements, Oid elementType,
                        const std::function<void(std::string&, const Element&)>& append) {
    std::string out;
    appendBigEndian(out, 1, 4);
    appendBigEndian(out, 0, 4);
    appendBigEndian(out, elementType, 4);
    appendBigEndian(out, elements.size(), 4);
    appendBigEndian(out, 1, 4);
    for (const auto& element : elements) {
        std::string bytes;
        append(bytes, element);
        appendBigEndian(out, bytes.size(), 4);
        out += bytes;
    }
    return out;
}

// A list parameter in binary form, with its array type.
std::pair<std::string, Oid> encodedList(const SqlParam& param) {
    if (auto* texts = std::get_if<TextList>(&param)) {
        return {
            binaryArray<std::string>(
                *texts, kTextOid, [](std::string& out, const std::string& text) { out += text; }),
            kTextArrayOid};
    }
    if (auto* integers = std::get_if<IntegerList>(&param)) {
        return {binaryArray<std::int64_t>(*integers, kInt8Oid,
                                          [](std::string& out, const std::int64_t& value) {
                                              appendBigEndian(out,
                                                              static_cast<std::uint64_t>(value), 8);
                                          }),
                kInt8ArrayOid};
    }
    return {binaryArray<ByteView>(std::get<BlobList>(param), kByteaOid,
                                  [](std::string& out, const ByteView& bytes) {
                                      out.append(reinterpret_cast<const char*>(bytes.data()),
                                                 bytes.size());
                                  }),
            kByteaArrayOid};
}

// A server on this machine: a Unix socket folder, or a loopback name or address.
bool isLocalHost(std::string_view host) {
    return host.empty() || host.starts_with('/') || host.starts_with('@') || host == "localhost" ||
           host == "127.0.0.1" || host == "::1";
}

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

namespace {

// What the address names, or "" when it leaves a keyword to libpq's defaults.
std::string addressValue(const std::string& address, std::string_view wanted) {
    char* error = nullptr;
    PQconninfoOption* options = PQconninfoParse(address.c_str(), &error);
    PQfreemem(error);
    std::string value;
    for (auto* option = options; option && option->keyword; ++option) {
        if (option->val && wanted == option->keyword) value = option->val;
    }
    PQconninfoFree(options);
    return value;
}

}  // namespace

bool tlsRequired(const std::string& address) {
    // A service's own settings are its own; a mode set here would override them.
    if (!addressValue(address, "sslmode").empty() || std::getenv("PGSSLMODE") ||
        !addressValue(address, "service").empty() || std::getenv("PGSERVICE"))
        return false;
    // The address connected to is hostaddr's when there is one; host then only names it.
    std::string hosts = addressValue(address, "hostaddr");
    if (hosts.empty())
        if (const char* hostaddr = std::getenv("PGHOSTADDR")) hosts = hostaddr;
    if (hosts.empty()) hosts = addressValue(address, "host");
    if (hosts.empty())
        if (const char* host = std::getenv("PGHOST")) hosts = host;
    std::string_view rest = hosts;
    while (true) {
        auto comma = rest.find(',');
        if (!isLocalHost(rest.substr(0, comma))) return true;
        if (comma == std::string_view::npos) return false;
        rest.remove_prefix(comma + 1);
    }
}

std::unique_ptr<PostgresConnection> PostgresConnection::open(
    const std::string& address, const std::function<std::string()>& askPassword) {
    bool tls = tlsRequired(address);
    auto connect = [&](const std::string* password) {
        // Defaults first: whatever the address says overrides them; a password asked for
        // comes last.
        std::vector<const char*> keywords{"application_name", "connect_timeout"};
        std::vector<const char*> values{"corvane", "15"};
        if (tls) {
            // Encrypted, and a password goes only where the server proves it holds the TLS
            // session's key: someone in the middle can neither read nor ask for it.
            keywords.push_back("sslmode");
            values.push_back("require");
            keywords.push_back("channel_binding");
            values.push_back("require");
        }
        keywords.push_back("dbname");
        values.push_back(address.c_str());
        if (password) {
            keywords.push_back("password");
            values.push_back(password->c_str());
        }
        keywords.push_back(nullptr);
        values.push_back(nullptr);
        return PQconnectdbParams(keywords.data(), values.data(), 1);
    };
    PGconn* connection = connect(nullptr);
    if (connection && PQstatus(connection) != CONNECTION_OK && askPassword &&
        PQconnectionNeedsPassword(connection)) {
        PQfinish(connection);
        auto password = askPassword();
        connection = connect(&password);
    }
    if (!connection) throw CloudError(kInternalError, "Out of memory connecting to the cloud");
    if (PQstatus(connection) != CONNECTION_OK) {
        auto reason = firstLine(PQerrorMessage(connection));
        PQfinish(connection);
        auto message = "Cannot connect to the cloud database: " + reason;
        int code = isLoginRefused(reason) ? kNotAuthenticated : kNetworkUnavailable;
        if (reason.find("database \"") != std::string::npos &&
            reason.find("does not exist") != std::string::npos)
            code = kBadContainer;
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
    // Reads see one snapshot for every statement, as SQLite's do. Writers of one zone take
    // turns on the zone's row, which the store's functions lock.
    execute(mode == TransactionMode::read ? "BEGIN ISOLATION LEVEL REPEATABLE READ" : "BEGIN");
}

void PostgresConnection::commit() {
    execute("COMMIT");
}

void PostgresConnection::rollback() noexcept {
    if (PQstatus(connection_) != CONNECTION_OK) return;
    if (PQtransactionStatus(connection_) == PQTRANS_IDLE) return;
    PQclear(PQexec(connection_, "ROLLBACK"));
}

void PostgresConnection::executeScript(const std::string& sql) {
    Result result(PQexec(connection_, sql.c_str()));
    check(result.get());
}

std::string PostgresConnection::passwordVerifier(const std::string& role,
                                                 const std::string& password) {
    char* verifier =
        PQencryptPasswordConn(connection_, password.c_str(), role.c_str(), "scram-sha-256");
    if (!verifier)
        throw CloudError(kInternalError, "Cannot make a password verifier: " +
                                             firstLine(PQerrorMessage(connection_)));
    std::string text = verifier;
    PQfreemem(verifier);
    return text;
}

bool PostgresConnection::broken() const {
    return PQstatus(connection_) != CONNECTION_OK;
}

void PostgresConnection::check(const PGresult* result) const {
    auto status = result ? PQresultStatus(result) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return;
    const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    auto reason = firstLine(result ? PQresultErrorMessage(result) : PQerrorMessage(connection_));
    if (broken() || !state) {
        auto message = "The connection to the cloud database was lost: " + reason;
        throw CloudError(kNetworkFailure, message, message);
    }
    std::string_view sqlState = state;
    int code = cloudCode(sqlState);
    // The store's own refusals read as they are; the server's other texts say where they came
    // from, and those a person can act on are shown.
    if (sqlState.starts_with("CV")) throw CloudError(code, reason);
    auto message = "Cloud database: " + reason;
    std::optional<std::string> shown;
    if (code == kInternalError) shown = message;
    throw CloudError(code, message, shown);
}

std::int64_t PostgresConnection::run(std::string_view sql, std::span<const SqlParam> params,
                                     const RowHandler& onRow) {
    auto statement = numberedParameters(sql);
    std::vector<std::string> buffers(params.size());
    std::vector<const char*> values(params.size(), nullptr);
    std::vector<int> lengths(params.size(), 0);
    std::vector<int> formats(params.size(), 0);
    std::vector<Oid> types(params.size(), 0);
    for (std::size_t i = 0; i < params.size(); ++i) {
        const auto& param = params[i];
        if (std::holds_alternative<std::monostate>(param)) continue;
        if (auto* integer = std::get_if<std::int64_t>(&param)) {
            buffers[i] = std::to_string(*integer);
            values[i] = buffers[i].c_str();
        } else if (auto* text = std::get_if<std::string_view>(&param)) {
            // Text parameters are read up to their terminating NUL: one inside would cut the
            // text short, and "z\0x" would name the zone "z".
            if (text->find('\0') != std::string_view::npos)
                throw CloudError(kInvalidArguments, "A name or text holds a NUL character");
            buffers[i] = std::string(*text);
            values[i] = buffers[i].c_str();
        } else if (auto* bytes = std::get_if<ByteView>(&param)) {
            values[i] = bytes->empty() ? "" : reinterpret_cast<const char*>(bytes->data());
            lengths[i] = static_cast<int>(bytes->size());
            formats[i] = 1;
        } else {
            std::tie(buffers[i], types[i]) = encodedList(param);
            values[i] = buffers[i].data();
            lengths[i] = static_cast<int>(buffers[i].size());
            formats[i] = 1;
        }
    }
    Result result(PQexecParams(connection_, statement.c_str(), static_cast<int>(params.size()),
                               types.data(), values.data(), lengths.data(), formats.data(), 1));
    check(result.get());
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

std::string PostgresConnection::memberAddress(const std::string& address, const std::string& role,
                                              const std::string& password) const {
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
    // What the address left to libpq's defaults, as the connection found it.
    if (host.empty() && PQhost(connection_)) host = PQhost(connection_);
    if (port.empty() && PQport(connection_)) port = PQport(connection_);
    if (database.empty() && PQdb(connection_)) database = PQdb(connection_);
    std::string uri = "postgresql://" + percentEncoded(role) + ":" + percentEncoded(password) +
                      "@" + percentEncoded(host);
    if (!port.empty()) uri += ":" + port;
    return uri + "/" + percentEncoded(database) + rest;
}

}  // namespace corvane::cloud
