#include "cloud/team_store.h"

#include <functional>
#include <vector>

#include "base/error.h"
#include "cloud/account.h"
#include "cloud/crypto.h"
#include "cloud/error_codes.h"
#include "cloud/schema.h"

namespace corvane::cloud {
namespace {

// Who reaches what. The functions run with the administrator's rights (SECURITY DEFINER) so
// that the policies can look at rows the person may not read, and name the person by their
// login (session_user: inside such a function current_user is the administrator).
//   corvane_me()              the person's account id
//   corvane_owns(zone)        the person owns the zone
//   corvane_member_zones()    zones the person owns, or accepted a share of (reads and writes)
//   corvane_reached_zones()   those, and zones where the person is a participant not removed
//                             who shows the share's token (corvane.share_token, set for one
//                             transaction): a share link is the only way into a zone before its
//                             share is accepted
// Policies test rows against these sets as "IN (SELECT …)", which the server computes once per
// statement: a function called for every row cost a push or a clone more than half its time.
const std::vector<std::string> kAccessRules = {
    // PL/pgSQL, not SQL: the server keeps a PL/pgSQL function's plans for the session, and
    // plans an SQL function's query at every call (a millisecond for each content read).
    R"(CREATE OR REPLACE FUNCTION corvane_me() RETURNS BIGINT LANGUAGE plpgsql STABLE
       SECURITY DEFINER SET search_path = public AS
       $$ BEGIN RETURN (SELECT id FROM accounts WHERE role_name = session_user); END $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_owns(zone BIGINT) RETURNS BOOLEAN LANGUAGE plpgsql
       STABLE SECURITY DEFINER SET search_path = public AS
       $$ BEGIN RETURN EXISTS (SELECT 1 FROM zones WHERE id = zone AND owner_id = corvane_me());
          END $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_member_zones() RETURNS SETOF BIGINT LANGUAGE plpgsql
       STABLE SECURITY DEFINER SET search_path = public AS
       $$ DECLARE me BIGINT := corvane_me();
          BEGIN
            RETURN QUERY SELECT id FROM zones WHERE owner_id = me
              UNION SELECT zone_id FROM participants
                WHERE account_id = me AND status = 2 AND permission = 3;
          END $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_reached_zones() RETURNS SETOF BIGINT LANGUAGE plpgsql
       STABLE SECURITY DEFINER SET search_path = public AS
       $$ DECLARE me BIGINT := corvane_me();
          BEGIN
            RETURN QUERY SELECT id FROM zones WHERE owner_id = me
              UNION SELECT zone_id FROM participants WHERE account_id = me AND status = 2
              UNION SELECT s.zone_id FROM shares s JOIN participants p ON p.zone_id = s.zone_id
                WHERE s.token = current_setting('corvane.share_token', true)
                AND p.status <> 3 AND (p.account_id = me OR (p.account_id IS NULL
                  AND p.email_key = (SELECT email_key FROM accounts WHERE id = me)));
          END $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_asset_unused(content TEXT) RETURNS BOOLEAN
       LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = public AS
       $$ BEGIN RETURN NOT EXISTS (SELECT 1 FROM asset_refs WHERE hash = content); END $$)",
    // Looked up by key for each row: a join in the policy itself is planned with the row
    // counts the server last measured, which a push outgrows, and scanned every record per row.
    R"(CREATE OR REPLACE FUNCTION corvane_asset_readable(content TEXT) RETURNS BOOLEAN
       LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = public AS
       $$ BEGIN
            RETURN EXISTS (SELECT 1 FROM asset_refs r JOIN records c ON c.id = r.record_id
              WHERE r.hash = content AND c.zone_id IN (SELECT corvane_reached_zones()));
          END $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_record_writable(record BIGINT) RETURNS BOOLEAN
       LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = public AS
       $$ BEGIN
            RETURN EXISTS (SELECT 1 FROM records
              WHERE id = record AND zone_id IN (SELECT corvane_member_zones()));
          END $$)",
    // Those of earlier versions.
    "DROP FUNCTION IF EXISTS corvane_member(BIGINT), corvane_reaches(BIGINT)",
    // Checked when the transaction commits, after all of a content's pieces are in.
    R"(CREATE OR REPLACE FUNCTION corvane_check_asset() RETURNS TRIGGER LANGUAGE plpgsql
       SECURITY DEFINER SET search_path = public AS $$
       DECLARE content BYTEA;
       BEGIN
         IF NOT EXISTS (SELECT 1 FROM assets WHERE hash = NEW.hash) THEN
           RETURN NULL;
         END IF;
         SELECT string_agg(data, ''::BYTEA ORDER BY seq) INTO content
           FROM asset_chunks WHERE hash = NEW.hash;
         content := coalesce(content, ''::BYTEA);
         IF length(content) <> (SELECT size FROM assets WHERE hash = NEW.hash)
            OR encode(sha256(content), 'hex') <> NEW.hash THEN
           RAISE EXCEPTION 'The stored content % does not match its name', NEW.hash
             USING ERRCODE = 'integrity_constraint_violation';
         END IF;
         RETURN NULL;
       END $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_check_chunk() RETURNS TRIGGER LANGUAGE plpgsql
       SECURITY DEFINER SET search_path = public AS $$
       BEGIN
         IF NOT EXISTS (SELECT 1 FROM assets WHERE hash = NEW.hash) THEN
           RAISE EXCEPTION 'A piece of content % was stored without its content', NEW.hash
             USING ERRCODE = 'integrity_constraint_violation';
         END IF;
         RETURN NULL;
       END $$)",
    "DROP TRIGGER IF EXISTS assets_match ON assets",
    "CREATE CONSTRAINT TRIGGER assets_match AFTER INSERT ON assets DEFERRABLE INITIALLY "
    "DEFERRED FOR EACH ROW EXECUTE FUNCTION corvane_check_asset()",
    "DROP TRIGGER IF EXISTS asset_chunks_belong ON asset_chunks",
    "CREATE CONSTRAINT TRIGGER asset_chunks_belong AFTER INSERT ON asset_chunks DEFERRABLE "
    "INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION corvane_check_chunk()",
};

struct Policy {
    std::string table;
    std::string name;
    std::string command;
    std::string rule;        // USING, and WITH CHECK unless `check` is given
    std::string check = {};  // empty: the rule
};

const std::string kMe = "(SELECT corvane_me())";
const std::string kMember = "zone_id IN (SELECT corvane_member_zones())";
const std::string kReached = "zone_id IN (SELECT corvane_reached_zones())";

const std::vector<Policy> kPolicies = {
    {"settings", "read", "SELECT", "true"},
    // The people of a team see each other, to invite them by address and show who shares.
    {"accounts", "read", "SELECT", "true"},
    // The owner's test comes first: a row being inserted is not yet in the sets.
    {"zones", "read", "SELECT", "owner_id = " + kMe + " OR id IN (SELECT corvane_reached_zones())"},
    {"zones", "create", "INSERT", "owner_id = " + kMe},
    {"zones", "delete", "DELETE", "owner_id = " + kMe},
    {"records", "read", "SELECT", kReached},
    {"records", "create", "INSERT", kMember},
    {"records", "change", "UPDATE", kMember},
    {"records", "delete", "DELETE", kMember},
    {"shares", "read", "SELECT", kReached},
    {"shares", "manage", "ALL", "corvane_owns(zone_id)"},
    {"participants", "read", "SELECT", kReached},
    {"participants", "manage", "ALL", "corvane_owns(zone_id)"},
    // Accepting binds one's own row to one's account; leaving marks it removed.
    {"participants", "answer", "UPDATE",
     kReached + " AND (account_id = " + kMe +
         " OR (account_id IS NULL AND email_key = (SELECT email_key FROM accounts WHERE id = " +
         kMe + ")))",
     "account_id = " + kMe},
    {"assets", "read", "SELECT", "true"},
    {"assets", "add", "INSERT", "true"},
    {"assets", "delete", "DELETE", "corvane_asset_unused(hash)"},
    // Pieces without their content exist only inside the transaction that adds or deletes them.
    {"asset_chunks", "read", "SELECT",
     "corvane_asset_readable(hash) OR NOT EXISTS (SELECT 1 FROM assets a WHERE a.hash = "
     "asset_chunks.hash)"},
    {"asset_chunks", "add", "INSERT",
     "NOT EXISTS (SELECT 1 FROM assets a WHERE a.hash = asset_chunks.hash)"},
    {"asset_chunks", "delete", "DELETE",
     "NOT EXISTS (SELECT 1 FROM assets a WHERE a.hash = asset_chunks.hash)"},
    {"asset_refs", "read", "SELECT", "EXISTS (SELECT 1 FROM records c WHERE c.id = record_id)"},
    {"asset_refs", "add", "INSERT", "corvane_record_writable(record_id)"},
    {"asset_refs", "delete", "DELETE", "corvane_record_writable(record_id)"},
};

const std::vector<std::string> kTables = {"settings",   "accounts", "zones",
                                          "records",    "assets",   "asset_chunks",
                                          "asset_refs", "shares",   "participants"};

std::string policySql(const Policy& policy) {
    std::string sql = "CREATE POLICY corvane_" + policy.name + " ON " + policy.table + " FOR " +
                      policy.command + " TO " + std::string(kPeopleRole);
    if (policy.command != "INSERT") sql += " USING (" + policy.rule + ")";
    if (policy.command != "SELECT" && policy.command != "DELETE")
        sql += " WITH CHECK (" + (policy.check.empty() ? policy.rule : policy.check) + ")";
    return sql;
}

bool isRoleName(std::string_view role) {
    if (role.empty() || role.size() > 63 || (role[0] >= '0' && role[0] <= '9')) return false;
    for (char c : role) {
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) return false;
    }
    // The server's own roles, and ours.
    return !role.starts_with("pg_") && role != kPeopleRole;
}

void requirePostgres(Connection& admin) {
    if (admin.dialect() != SqlDialect::postgresql)
        throw CloudError(kInvalidArguments, "A team store is a PostgreSQL database");
}

bool roleExists(Connection& admin, std::string_view role) {
    return queryInteger(admin, "SELECT 1 FROM pg_roles WHERE rolname = ?", {role}).has_value();
}

bool isPerson(Connection& admin, const std::string& role) {
    return queryInteger(admin,
                        "SELECT 1 FROM pg_auth_members WHERE roleid = ?::regrole AND "
                        "member = ?::regrole",
                        {kPeopleRole, role})
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

bool createRole(Connection& admin, const std::string& statement, std::string_view role) {
    return runUnlessDoneMeanwhile(admin, statement, [&] { return roleExists(admin, role); });
}

void grantPeopleRole(Connection& admin, const std::string& role) {
    if (isPerson(admin, role)) return;
    runUnlessDoneMeanwhile(admin, "GRANT " + std::string(kPeopleRole) + " TO " + role,
                           [&] { return isPerson(admin, role); });
}

}  // namespace

void checkTeamPerson(Connection& connection) {
    std::optional<std::int64_t> member;
    try {
        member = queryInteger(connection,
                              "SELECT CAST(pg_has_role(session_user, ?, 'MEMBER') AS INTEGER)",
                              {kPeopleRole});
    } catch (const CloudError&) {
        // No such group: nobody made this database a team store.
    }
    if (!member)
        throw CloudError(kBadContainer,
                         "The cloud database is not a team store; its administrator runs "
                         "\"corvane store init\" on it");
    if (*member == 0) throw notAPerson(connection);
}

void initTeamStore(Connection& admin) {
    requirePostgres(admin);
    prepareSchema(admin);
    Transaction transaction(admin, TransactionMode::write);
    if (!roleExists(admin, kPeopleRole))
        createRole(admin, "CREATE ROLE " + std::string(kPeopleRole) + " NOLOGIN", kPeopleRole);
    // Policies are made afresh, so a new version's rules replace the old ones (and the
    // functions they used may go).
    for (const auto& table : kTables) {
        admin.execute(
            "DO $$ DECLARE p RECORD; BEGIN FOR p IN SELECT policyname FROM pg_policies "
            "WHERE schemaname = current_schema() AND tablename = '" +
            table + "' LOOP EXECUTE format('DROP POLICY %I ON " + table +
            "', p.policyname); END LOOP; END $$");
    }
    for (const auto& statement : kAccessRules)
        admin.execute(statement);
    for (const auto& table : kTables) {
        admin.execute("ALTER TABLE " + table + " ENABLE ROW LEVEL SECURITY");
        admin.execute("REVOKE ALL ON " + table + " FROM PUBLIC");
    }
    for (const auto& policy : kPolicies)
        admin.execute(policySql(policy));
    std::string people(kPeopleRole);
    admin.execute("GRANT SELECT ON settings, accounts TO " + people);
    admin.execute(
        "GRANT SELECT, INSERT, UPDATE, DELETE ON zones, records, assets, asset_chunks, "
        "asset_refs, shares, participants TO " +
        people);
    admin.execute("GRANT USAGE ON ALL SEQUENCES IN SCHEMA public TO " + people);
    transaction.commit();
}

std::optional<std::string> addPerson(Connection& admin, const NewPerson& person) {
    requirePostgres(admin);
    checkSchema(admin);
    if (!isRoleName(person.role))
        throw CloudError(kInvalidArguments,
                         "\"" + person.role +
                             "\" cannot be a person's role: use lowercase letters, digits and _");
    auto at = person.email.find('@');
    if (at == 0 || at == std::string::npos || at + 1 == person.email.size())
        throw CloudError(kInvalidArguments, "\"" + person.email + "\" is not an e-mail address");
    Transaction transaction(admin, TransactionMode::write);
    if (auto other = findAccountByEmail(admin, person.email)) {
        auto role = queryText(admin, "SELECT role_name FROM accounts WHERE id = ?", {other->id});
        if (role != person.role)
            throw CloudError(kInvalidArguments,
                             person.email + " already belongs to the role " + role.value_or("?"));
    }
    std::optional<std::string> password;
    if (!roleExists(admin, person.role)) {
        password = randomHex(16);
        // Neither can be a parameter; both were checked to hold only safe characters.
        if (!createRole(admin, "CREATE ROLE " + person.role + " LOGIN PASSWORD '" + *password + "'",
                        person.role))
            password.reset();
    }
    grantPeopleRole(admin, person.role);

    auto space = person.name.find(' ');
    std::string given = person.name.substr(0, space);
    std::string family = space == std::string::npos ? "" : person.name.substr(space + 1);
    SqlParam familyParam = family.empty() ? SqlParam{} : SqlParam{std::string_view(family)};
    auto key = emailKey(person.email);
    auto changed = admin.execute(
        "UPDATE accounts SET email = ?, email_key = ?, given_name = ?, family_name = ? "
        "WHERE role_name = ?",
        {person.email, key, given, familyParam, person.role});
    if (changed == 0) {
        admin.execute(
            "INSERT INTO accounts (record_name, email, email_key, given_name, family_name, "
            "role_name) VALUES (?, ?, ?, ?, ?, ?)",
            {"_" + randomHex(16), person.email, key, given, familyParam, person.role});
    }
    transaction.commit();
    return password;
}

}  // namespace corvane::cloud
