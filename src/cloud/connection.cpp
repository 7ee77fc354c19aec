#include "cloud/connection.h"

namespace corvane::cloud {

std::optional<std::int64_t> queryInteger(Connection& connection, std::string_view sql,
                                         std::initializer_list<SqlParam> params) {
    std::optional<std::int64_t> value;
    connection.execute(sql, params, [&](const SqlRow& row) {
        if (!value && !row.isNull(0)) value = row.integer(0);
    });
    return value;
}

std::optional<std::string> queryText(Connection& connection, std::string_view sql,
                                     std::initializer_list<SqlParam> params) {
    std::optional<std::string> value;
    connection.execute(sql, params, [&](const SqlRow& row) {
        if (!value && !row.isNull(0)) value = std::string(row.text(0));
    });
    return value;
}

}  // namespace corvane::cloud
