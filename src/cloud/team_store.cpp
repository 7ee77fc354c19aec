#include "cloud/team_store.h"

#include <functional>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "cloud/account.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"
#include "cloud/team_operations.h"
#include "cloud/team_store_sql.h"

namespace corvane::cloud {
namespace {

// The functions people may call, with their argument types.
const std::vector<std::string_view> kPeopleFunctions = {
    "sign_in()",
    "list_zones(INT)",
    "zone_versions(INT, TEXT[])",
    "create_zone(TEXT)",
    "delete_zone(INT, TEXT, TEXT)",
    "fetch_records(INT, TEXT, TEXT, TEXT, TEXT[])",
    "read_contents(INT, TEXT, TEXT, TEXT, TEXT[])",
    "missing_contents(INT, TEXT, TEXT, TEXT[])",
    "store_contents(INT, TEXT, TEXT, TEXT[], BIGINT[], BIGINT[], BYTEA[])",
    "save_records(INT, TEXT, TEXT, INT, BOOLEAN, TEXT[], TEXT[], TEXT[], BYTEA[], TEXT[], "
    "BIGINT[], TEXT[], JSON)",
    "look_up_person(TEXT)",
    "open_share(TEXT)",
    "accept_share(TEXT)",
    "storage_usage()",
};

// Any number, the same in every process: two administrators setting up one store take turns.
constexpr std::string_view kSetUpLock = "SELECT pg_advisory_xact_lock(4937315566214730)";

CloudError invalid(const std::string& message) {
    return CloudError(kInvalidArguments, message);
}

bool isRoleName(std::string_view role) {
    if (role.empty() || role.size() > 63 || (role[0] >= '0' && role[0] <= '9')) return false;
    for (char c : role) {
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) return false;
    }
    // The server's own roles, and the stores' groups.
    return !role.starts_with("pg_") && !role.starts_with("corvane_people");
}

bool roleExists(Connection& admin, std::string_view role) {
    return queryInteger(admin, "SELECT 1 FROM pg_roles WHERE rolname = ?", {role}).has_value();
}

bool isMember(Connection& admin, std::string_view group, std::string_view role) {
    return queryInteger(admin,
                        "SELECT 1 FROM pg_auth_members WHERE roleid = ?::regrole AND "
                        "member = ?::regrole",
                        {group, role})
        .has_value();
}

// Roles belong to the whole server, so another database's administrator (or a test beside this
// one) may make the same role at the same moment, and the later statement fails on it. Such a
// failure is no failure once `done` holds; true when this statement did the work.
bool runUnlessDoneMeanwhile(Connection& admin, const std::string& statement,
                            const std::function<bool()>& done) {
    admin.execute("SAVEPOINT role_change");
    try {
        admin.execute(statement);
    } catch (const CloudError&) {
        admin.execute("ROLLBACK TO SAVEPOINT role_change");
        if (!done()) throw;
        return false;
    }
    admin.execute("RELEASE SAVEPOINT role_change");
    return true;
}

void grantGroup(Connection& admin, const std::string& group, const std::string& role) {
    if (isMember(admin, group, role)) return;
    runUnlessDoneMeanwhile(admin, "GRANT " + group + " TO " + role,
                           [&] { return isMember(admin, group, role); });
}

std::optional<std::int64_t> storedLayout(Connection& admin) {
    if (!queryInteger(admin, "SELECT 1 WHERE to_regclass('corvane.settings') IS NOT NULL", {}))
        return std::nullopt;
    auto text = queryText(admin, "SELECT value FROM corvane.settings WHERE name = 'layout'", {});
    if (!text) return std::nullopt;
    return std::stoll(*text);
}

// Why the role must not become a person, if it must not: a role with more rights than a
// person's would bring them into the store (one that may create roles can grant itself the
// administrator's), and a role whose members log in would let them all in.
std::optional<std::string> unfitForPerson(Connection& admin, const std::string& role) {
    std::optional<std::string> reason;
    admin.execute(
        "SELECT r.rolsuper, r.rolcreaterole, r.rolreplication, r.rolbypassrls, r.rolcanlogin, "
        "pg_has_role(r.oid, current_user, 'MEMBER'), EXISTS (SELECT 1 FROM pg_auth_members m "
        "JOIN pg_roles g ON g.oid = m.roleid WHERE m.member = r.oid AND g.rolname NOT LIKE "
        "'corvane\\_people\\_%'), EXISTS (SELECT 1 FROM pg_auth_members m WHERE m.roleid = "
        "r.oid) FROM pg_roles r WHERE r.rolname = ?",
        {role}, [&](const SqlRow& row) {
            if (row.integer(0)) {
                reason = "is a superuser";
            } else if (row.integer(1)) {
                reason = "may create roles";
            } else if (row.integer(2) || row.integer(3)) {
                reason = "may replicate or bypass row security";
            } else if (row.integer(5)) {
                reason = "has the administrator's rights";
            } else if (!row.integer(4) || row.integer(7)) {
                reason = "is a group of other roles";
            } else if (row.integer(6)) {
                reason = "is a member of other roles, whose rights it has";
            }
        });
    return reason;
}

void checkAdministrator(Connection& admin) {
    if (admin.dialect() != SqlDialect::postgresql)
        throw invalid("A team store is a PostgreSQL database");
    if (queryInteger(admin, "SELECT 1 FROM pg_roles WHERE rolname = current_user AND rolsuper", {}))
        throw invalid(
            "The administrator of a team store must not be a superuser: the store's functions run "
            "with its rights. Use a role that owns the database and may create roles");
    if (!queryInteger(admin,
                      "SELECT 1 FROM pg_database WHERE datname = current_database() AND "
                      "pg_has_role(current_user, datdba, 'USAGE')",
                      {}))
        throw invalid("The administrator of a team store must own its database");
}

}  // namespace

std::vector<std::string> initTeamStore(PostgresConnection& admin) {
    checkAdministrator(admin);
    Transaction transaction(admin, TransactionMode::write);
    admin.execute(kSetUpLock);
    if (auto layout = storedLayout(admin); layout && *layout > kTeamLayout)
        throw CloudError(kIncompatibleVersion,
                         "The cloud database was written by a newer version of Corvane (layout " +
                             std::to_string(*layout) + "). Try updating Corvane.");
    admin.executeScript(kTeamStoreSql);

    auto group = queryText(admin, "SELECT value FROM corvane.settings WHERE name = 'people'", {})
                     .value_or("");
    if (group.empty()) {
        group = "corvane_people_" +
                std::to_string(*queryInteger(
                    admin, "SELECT oid::BIGINT FROM pg_database WHERE datname = current_database()",
                    {}));
    }
    if (!roleExists(admin, group))
        runUnlessDoneMeanwhile(admin, "CREATE ROLE " + group + " NOLOGIN",
                               [&] { return roleExists(admin, group); });
    admin.execute(
        "INSERT INTO corvane.settings (name, value) VALUES ('layout', ?), ('people', ?) "
        "ON CONFLICT (name) DO UPDATE SET value = excluded.value",
        {std::to_string(kTeamLayout), group});

    // The door: people may connect, and call the functions; nothing else, for anyone.
    admin.execute(
        "DO $$ BEGIN EXECUTE format('REVOKE ALL ON DATABASE %I FROM PUBLIC', "
        "current_database()); EXECUTE format('GRANT CONNECT ON DATABASE %I TO " +
        group + "', current_database()); END $$");
    // A writer holds its zone's lock until it commits; one that stops talking mid-way lets go.
    admin.execute(
        "DO $$ BEGIN EXECUTE format('ALTER DATABASE %I SET "
        "idle_in_transaction_session_timeout = ''5min''', current_database()); END $$");
    admin.execute("REVOKE ALL ON SCHEMA public FROM PUBLIC");
    admin.execute("REVOKE ALL ON ALL TABLES IN SCHEMA corvane FROM PUBLIC");
    admin.execute("REVOKE ALL ON ALL SEQUENCES IN SCHEMA corvane FROM PUBLIC");
    admin.execute("REVOKE ALL ON ALL FUNCTIONS IN SCHEMA corvane FROM PUBLIC");
    admin.execute("REVOKE ALL ON SCHEMA corvane FROM PUBLIC");
    admin.execute("GRANT USAGE ON SCHEMA corvane TO " + group);
    for (auto function : kPeopleFunctions)
        admin.execute("GRANT EXECUTE ON FUNCTION corvane." + std::string(function) + " TO " +
                      group);
    // People of an earlier layout were members of a group every store on the server shared;
    // each joins this store's group, unless its rights make it unfit to be a person.
    std::vector<std::string> people;
    admin.execute(
        "SELECT role_name FROM corvane.accounts a JOIN pg_roles r ON r.rolname = a.role_name", {},
        [&](const SqlRow& row) { people.emplace_back(row.text(0)); });
    std::vector<std::string> refused;
    for (const auto& role : people) {
        if (auto reason = unfitForPerson(admin, role)) {
            refused.push_back(role + " " + *reason);
            continue;
        }
        grantGroup(admin, group, role);
    }
    transaction.commit();
    return refused;
}

bool largeObjectsOpen(Connection& admin) {
    auto group = peopleGroup(admin);
    return queryInteger(admin,
                        "SELECT 1 WHERE has_function_privilege(?, 'pg_catalog.lo_from_bytea(oid, "
                        "bytea)', 'EXECUTE') OR has_function_privilege(?, "
                        "'pg_catalog.lo_creat(integer)', 'EXECUTE') OR has_function_privilege(?, "
                        "'pg_catalog.lo_create(oid)', 'EXECUTE')",
                        {group, group, group})
        .has_value();
}

std::string peopleGroup(Connection& admin) {
    auto layout = storedLayout(admin);
    if (!layout || *layout != kTeamLayout)
        throw CloudError(kBadContainer,
                         "The cloud database is not set up for this version of Corvane; run "
                         "\"corvane store init\" on it first");
    return *queryText(admin, "SELECT value FROM corvane.settings WHERE name = 'people'", {});
}

std::optional<std::string> addPerson(PostgresConnection& admin, const NewPerson& person,
                                     bool existingRole) {
    checkAdministrator(admin);
    auto group = peopleGroup(admin);
    if (!isRoleName(person.role))
        throw invalid("\"" + person.role +
                      "\" cannot be a person's role: use lowercase letters, digits and _");
    auto at = person.email.find('@');
    if (at == 0 || at == std::string::npos || at + 1 == person.email.size())
        throw invalid("\"" + person.email + "\" is not an e-mail address");
    Transaction transaction(admin, TransactionMode::write);
    auto key = emailKey(person.email);
    auto owner =
        queryText(admin, "SELECT role_name FROM corvane.accounts WHERE email_key = ?", {key});
    if (owner && *owner != person.role)
        throw invalid(person.email + " already belongs to the role " + *owner);

    std::optional<std::string> password;
    if (roleExists(admin, person.role)) {
        if (auto reason = unfitForPerson(admin, person.role))
            throw invalid("The role " + person.role + " " + *reason + " and cannot be a person");
        bool alreadyPerson =
            queryInteger(admin, "SELECT 1 FROM corvane.accounts WHERE role_name = ?", {person.role})
                .has_value();
        if (!alreadyPerson && !existingRole)
            throw invalid("The role " + person.role +
                          " exists already; to make it a person of this store, add "
                          "--existing-role");
    } else {
        password = randomHex(16);
        // The server sees a verifier only; the role name was checked to hold safe characters.
        auto verifier = admin.passwordVerifier(person.role, *password);
        if (!runUnlessDoneMeanwhile(
                admin, "CREATE ROLE " + person.role + " LOGIN PASSWORD '" + verifier + "'",
                [&] { return roleExists(admin, person.role); }))
            password.reset();
    }
    // Another administrator may have made the role meanwhile, with rights of its own.
    if (auto reason = unfitForPerson(admin, person.role))
        throw invalid("The role " + person.role + " " + *reason + " and cannot be a person");
    grantGroup(admin, group, person.role);

    auto space = person.name.find(' ');
    std::string given = person.name.substr(0, space);
    std::string family = space == std::string::npos ? "" : person.name.substr(space + 1);
    SqlParam familyParam = family.empty() ? SqlParam{} : SqlParam{std::string_view(family)};
    auto changed = admin.execute(
        "UPDATE corvane.accounts SET email = ?, email_key = ?, given_name = ?, family_name = ? "
        "WHERE role_name = ?",
        {person.email, key, given, familyParam, person.role});
    if (changed == 0) {
        admin.execute(
            "INSERT INTO corvane.accounts (record_name, email, email_key, given_name, "
            "family_name, role_name) VALUES (?, ?, ?, ?, ?, ?)",
            {"_" + randomHex(16), person.email, key, given, familyParam, person.role});
    }
    transaction.commit();
    return password;
}

}  // namespace corvane::cloud
