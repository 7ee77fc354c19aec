// Accounts: the people of one store, each with a record name ("_" and 32 hex digits) that other
// people see as the owner of their zones. The embedded file's own user is its default account,
// made on first use from git's identity; a second person in the same file is named by e-mail.
// Functions work on the caller's connection and thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "cloud/connection.h"
#include "cloud/share.h"

namespace corvane::cloud {

struct Account {
    std::int64_t id = 0;
    std::string recordName;
    std::optional<std::string> email;
    NameComponents name;

    UserIdentity identity() const;
};

// Which account a container acts for: the file's default account when email is empty, else the
// account with that e-mail address, created (with `name`) when it does not exist yet.
struct AccountChoice {
    std::optional<std::string> email;
    std::optional<NameComponents> name;
};

Account openAccount(Connection& connection, const AccountChoice& choice);

std::optional<Account> findAccountByEmail(Connection& connection, std::string_view email);
std::optional<Account> findAccountByRecordName(Connection& connection, std::string_view recordName);
std::optional<Account> findAccountById(Connection& connection, std::int64_t id);

// The person running the program: git's global user.email and user.name, else the login name.
AccountChoice localIdentity();

// The form of an e-mail address that look-ups compare: ASCII letters in lower case.
std::string emailKey(std::string_view email);

}  // namespace corvane::cloud
