#include "cloud/team_store.h"

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
//   corvane_member(zone)      owner, or a participant who accepted (reads and writes)
//   corvane_reaches(zone)     a member, or a participant not removed who shows the share's token
//                             (corvane.share_token, set for one transaction): a share link is
//                             the only way into a zone before its share is accepted
// Stored contents are named by their SHA-256 and shared between zones: anyone may add one (the
// server checks at commit that the bytes match the name, so nobody can plant wrong bytes under
// a name another person will use), a person reads the bytes of contents their zones use, and
// contents nobody uses may be deleted by anyone.
const std::vector<std::string> kAccessRules = {
    R"(CREATE OR REPLACE FUNCTION corvane_me() RETURNS BIGINT LANGUAGE sql STABLE
       SECURITY DEFINER SET search_path = public AS
       $$ SELECT id FROM accounts WHERE role_name = session_user $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_owns(zone BIGINT) RETURNS BOOLEAN LANGUAGE sql STABLE
       SECURITY DEFINER SET search_path = public AS
       $$ SELECT EXISTS (SELECT 1 FROM zones WHERE id = zone AND owner_id = corvane_me()) $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_member(zone BIGINT) RETURNS BOOLEAN LANGUAGE sql STABLE
       SECURITY DEFINER SET search_path = public AS
       $$ SELECT corvane_owns(zone) OR EXISTS (SELECT 1 FROM participants p
            WHERE p.zone_id = zone AND p.account_id = corvane_me() AND p.status = 2
            AND p.permission = 3) $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_reaches(zone BIGINT) RETURNS BOOLEAN LANGUAGE sql
       STABLE SECURITY DEFINER SET search_path = public AS
       $$ SELECT corvane_owns(zone) OR EXISTS (SELECT 1 FROM participants p
            WHERE p.zone_id = zone AND p.account_id = corvane_me() AND p.status = 2)
          OR EXISTS (SELECT 1 FROM shares s JOIN participants p ON p.zone_id = s.zone_id
            WHERE s.zone_id = zone AND s.token = current_setting('corvane.share_token', true)
            AND p.status <> 3 AND (p.account_id = corvane_me() OR (p.account_id IS NULL
              AND p.email_key = (SELECT email_key FROM accounts WHERE id = corvane_me())))) $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_asset_readable(content TEXT) RETURNS BOOLEAN
       LANGUAGE sql STABLE SECURITY DEFINER SET search_path = public AS
       $$ SELECT EXISTS (SELECT 1 FROM asset_refs r JOIN records c ON c.id = r.record_id
            WHERE r.hash = content AND corvane_reaches(c.zone_id)) $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_asset_unused(content TEXT) RETURNS BOOLEAN
       LANGUAGE sql STABLE SECURITY DEFINER SET search_path = public AS
       $$ SELECT NOT EXISTS (SELECT 1 FROM asset_refs WHERE hash = content) $$)",
    R"(CREATE OR REPLACE FUNCTION corvane_record_writable(record BIGINT) RETURNS BOOLEAN
       LANGUAGE sql STABLE SECURITY DEFINER SET search_path = public AS
       $$ SELECT EXISTS (SELECT 1 FROM records WHERE id = record AND corvane_member(zone_id)) $$)",
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
    const char* table;
    const char* name;
    const char* command;
    const char* rule;  // USING, and WITH CHECK unless `check` is given
    const char* check = nullptr;
};

const std::vector<Policy> kPolicies = {
    {"settings", "read", "SELECT", "true"},
    // The people of a team see each other, to invite them by address and show who shares.
    {"accounts", "read", "SELECT", "true"},
    // The owner's test comes first: a row being inserted is not yet visible to the functions.
    {"zones", "read", "SELECT", "owner_id = corvane_me() OR corvane_reaches(id)"},
    {"zones", "create", "INSERT", "owner_id = corvane_me()"},
    {"zones", "delete", "DELETE", "owner_id = corvane_me()"},
    {"records", "read", "SELECT", "corvane_reaches(zone_id)"},
    {"records", "create", "INSERT", "corvane_member(zone_id)"},
    {"records", "change", "UPDATE", "corvane_member(zone_id)"},
    {"records", "delete", "DELETE", "corvane_member(zone_id)"},
    {"shares", "read", "SELECT", "corvane_reaches(zone_id)"},
    {"shares", "manage", "ALL", "corvane_owns(zone_id)"},
    {"participants", "read", "SELECT", "corvane_reaches(zone_id)"},
    {"participants", "manage", "ALL", "corvane_owns(zone_id)"},
    // Accepting binds one's own row to one's account; leaving marks it removed.
    {"participants", "answer", "UPDATE",
     "corvane_reaches(zone_id) AND (account_id = corvane_me() OR (account_id IS NULL AND "
     "email_key = (SELECT email_key FROM accounts WHERE id = corvane_me())))",
     "account_id = corvane_me()"},
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
    std::string sql = "CREATE POLICY corvane_" + std::string(policy.name) + " ON " + policy.table +
                      " FOR " + policy.command + " TO " + std::string(kPeopleRole);
    std::string command = policy.command;
    if (command != "INSERT") sql += " USING (" + std::string(policy.rule) + ")";
    if (command != "SELECT" && command != "DELETE")
        sql += " WITH CHECK (" + std::string(policy.check ? policy.check : policy.rule) + ")";
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
    admin.execute("DO $$ BEGIN IF NOT EXISTS (SELECT 1 FROM pg_roles WHERE rolname = '" +
                  std::string(kPeopleRole) + "') THEN CREATE ROLE " + std::string(kPeopleRole) +
                  " NOLOGIN; END IF; END $$");
    for (const auto& statement : kAccessRules)
        admin.execute(statement);
    for (const auto& table : kTables) {
        admin.execute("ALTER TABLE " + table + " ENABLE ROW LEVEL SECURITY");
        // Policies are made afresh, so a new version's rules replace the old ones.
        admin.execute(
            "DO $$ DECLARE p RECORD; BEGIN FOR p IN SELECT policyname FROM pg_policies "
            "WHERE schemaname = current_schema() AND tablename = '" +
            table + "' LOOP EXECUTE format('DROP POLICY %I ON " + table +
            "', p.policyname); END LOOP; END $$");
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
    if (!queryInteger(admin, "SELECT 1 FROM pg_roles WHERE rolname = ?", {person.role})) {
        password = randomHex(16);
        // Neither can be a parameter; both were checked to hold only safe characters.
        admin.execute("CREATE ROLE " + person.role + " LOGIN PASSWORD '" + *password + "'");
    }
    admin.execute("GRANT " + std::string(kPeopleRole) + " TO " + person.role);

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
