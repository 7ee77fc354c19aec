#include "cloud/account.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "base/error.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"

namespace corvane::cloud {
namespace {

constexpr std::string_view kAccountColumns =
    "SELECT id, record_name, email, given_name, family_name FROM accounts ";

std::optional<std::string> optionalText(const SqlRow& row, int column) {
    if (row.isNull(column)) return std::nullopt;
    return std::string(row.text(column));
}

std::optional<Account> findAccount(Connection& connection, std::string_view where,
                                   std::initializer_list<SqlParam> params) {
    std::optional<Account> account;
    connection.execute(std::string(kAccountColumns) + std::string(where), params,
                       [&](const SqlRow& row) {
                           account = Account{row.integer(0),
                                             std::string(row.text(1)),
                                             optionalText(row, 2),
                                             {optionalText(row, 3), optionalText(row, 4)}};
                       });
    return account;
}

SqlParam param(const std::optional<std::string>& text) {
    if (!text) return std::monostate{};
    return std::string_view(*text);
}

std::int64_t insertAccount(Connection& connection, const AccountChoice& choice, bool isDefault) {
    auto recordName = "_" + randomHex(16);
    std::optional<std::string> key;
    if (choice.email) key = emailKey(*choice.email);
    NameComponents name = choice.name.value_or(NameComponents{});
    std::int64_t id = 0;
    connection.execute(
        "INSERT INTO accounts (record_name, email, email_key, given_name, family_name, "
        "is_default) VALUES (?, ?, ?, ?, ?, ?) RETURNING id",
        {recordName, param(choice.email), param(key), param(name.givenName), param(name.familyName),
         std::int64_t{isDefault ? 1 : 0}},
        [&](const SqlRow& row) { id = row.integer(0); });
    return id;
}

std::string commandOutput(const char* command) {
    std::string output;
    if (FILE* pipe = ::popen(command, "r")) {
        std::array<char, 256> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), pipe))
            output += buffer.data();
        ::pclose(pipe);
    }
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r'))
        output.pop_back();
    return output;
}

}  // namespace

UserIdentity Account::identity() const {
    UserIdentity identity;
    identity.userRecordName = recordName;
    identity.emailAddress = email;
    if (name.givenName || name.familyName) identity.nameComponents = name;
    identity.hasAccount = true;
    return identity;
}

Account openAccount(Connection& connection, const AccountChoice& choice) {
    if (choice.email) {
        if (choice.email->empty())
            throw CloudError(kInvalidArguments, "An account needs an e-mail address");
        if (auto found = findAccountByEmail(connection, *choice.email)) return *found;
        Transaction transaction(connection, TransactionMode::write);
        // Another process may have made it while this one waited for the lock.
        auto found = findAccountByEmail(connection, *choice.email);
        if (!found) {
            auto id = insertAccount(connection, choice, false);
            found = findAccountById(connection, id);
        }
        transaction.commit();
        return *found;
    }

    if (auto found = findAccount(connection, "WHERE is_default = 1", {})) return *found;
    auto identity = localIdentity();
    Transaction transaction(connection, TransactionMode::write);
    auto found = findAccount(connection, "WHERE is_default = 1", {});
    if (!found && identity.email) {
        // The person may already be in the file, invited by address before the file was theirs.
        found = findAccountByEmail(connection, *identity.email);
        if (found)
            connection.execute("UPDATE accounts SET is_default = 1 WHERE id = ?", {found->id});
    }
    if (!found) found = findAccountById(connection, insertAccount(connection, identity, true));
    transaction.commit();
    return *found;
}

std::optional<Account> findAccountByEmail(Connection& connection, std::string_view email) {
    auto key = emailKey(email);
    return findAccount(connection, "WHERE email_key = ?", {key});
}

std::optional<Account> findAccountByRecordName(Connection& connection,
                                               std::string_view recordName) {
    return findAccount(connection, "WHERE record_name = ?", {recordName});
}

std::optional<Account> findAccountById(Connection& connection, std::int64_t id) {
    return findAccount(connection, "WHERE id = ?", {id});
}

AccountChoice localIdentity() {
    AccountChoice choice;
    // --global: the person's identity, never the configuration of whatever repository the
    // program happens to run in.
    auto email = commandOutput("git config --global --get user.email 2>/dev/null");
    auto name = commandOutput("git config --global --get user.name 2>/dev/null");
    if (!email.empty()) choice.email = email;
    if (name.empty()) {
        if (const char* user = std::getenv("USER"); user && *user) {
            name = user;
        } else if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_name) {
            name = entry->pw_name;
        }
    }
    if (!name.empty()) {
        NameComponents components;
        auto space = name.find(' ');
        components.givenName = name.substr(0, space);
        if (space != std::string::npos && space + 1 < name.size())
            components.familyName = name.substr(space + 1);
        choice.name = components;
    }
    return choice;
}

std::string emailKey(std::string_view email) {
    std::string key(email);
    for (auto& c : key) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return key;
}

}  // namespace corvane::cloud
