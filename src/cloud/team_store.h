// The team store: a PostgreSQL database that several people share, each as a database role of
// their own. Setting it up creates the tables and the row-level security that keeps each person
// to their own zones and the zones shared with them; adding a person creates their role and
// their account. Both run on an administrator's connection (the owner of the tables, who is
// exempt from the policies) and may be run again without harm.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cloud/connection.h"

namespace corvane::cloud {

// The group role every person of the store belongs to; it holds the table privileges.
inline constexpr std::string_view kPeopleRole = "corvane_people";

// Before anything else on a person's connection: code 9 unless the login is one of the store's
// people, code 5 when the database is no team store.
void checkTeamPerson(Connection& connection);

// Creates or upgrades the tables, the access functions, the policies and the people's group.
void initTeamStore(Connection& admin);

struct NewPerson {
    std::string role;  // a PostgreSQL role name: lowercase letters, digits and "_"
    std::string email;
    std::string name;  // given name, a space, family name
};

// Makes the role (when it does not exist yet, with a new random password, which is returned) and
// its account; an existing person's e-mail and name are updated. Code 12 for a role name or
// address that cannot be used, or an address that belongs to another role.
std::optional<std::string> addPerson(Connection& admin, const NewPerson& person);

}  // namespace corvane::cloud
