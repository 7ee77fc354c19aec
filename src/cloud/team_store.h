// The team store: a PostgreSQL database that several people share, each as a database role of
// their own. Its tables, and the functions that are people's only way to them, are set up by
// team_store.sql; this unit runs it and manages the people, on the connection of the store's
// administrator: a role that owns the database and may create roles, and is no superuser (the
// functions run with its rights). Both operations may be run again without harm.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cloud/postgres_connection.h"

namespace corvane::cloud {

// Creates the store, or brings one of an earlier layout up to this one with its data. Each
// store has a group role of its own ("corvane_people_" and the database's number): only its
// members may connect to the database, and they may do nothing there but call the store's
// functions. Code 12 for an administrator that is a superuser or does not own the database;
// 18 for a store of a newer layout. Returns the people of an earlier layout left out of the
// group, each with why ("ann may create roles").
std::vector<std::string> initTeamStore(PostgresConnection& admin);

// The store's group role; code 5 when the database is no team store of this layout.
std::string peopleGroup(Connection& admin);

// Whether the store's people may still make large objects, the server's own kind of stored
// bytes outside any table, and so fill its disk. Only a superuser can take that right away, in
// the store's database, with kCloseLargeObjects.
bool largeObjectsOpen(Connection& admin);
inline constexpr const char* kCloseLargeObjects =
    "REVOKE EXECUTE ON FUNCTION pg_catalog.lo_creat(integer), pg_catalog.lo_create(oid), "
    "pg_catalog.lo_from_bytea(oid, bytea) FROM PUBLIC";

struct NewPerson {
    std::string role;  // a PostgreSQL role name: lowercase letters, digits and "_"
    std::string email;
    std::string name;  // given name, a space, family name
};

// Makes `role` a person of the store: creates the role with a new random password, which is
// returned (the server gets only its SCRAM verifier), and its account. A person of the store
// already keeps their password and has their e-mail and name updated. A role that exists but
// is not a person here is taken only when `existingRole` says so, keeping its password. Code 12
// for a name or address that cannot be used, an address of another person, a role that exists
// (unless asked), and a role with more rights than a person's: a superuser, one that may create
// roles, replicate or bypass row security, the administrator or one with its rights, a group,
// or a member of other roles.
std::optional<std::string> addPerson(PostgresConnection& admin, const NewPerson& person,
                                     bool existingRole = false);

}  // namespace corvane::cloud
