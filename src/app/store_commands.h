// `corvane store …`: the commands an administrator runs once to make a PostgreSQL database a
// team store, and once for each person who joins the team. The administrator's address comes
// from the command line, or else from libpq's environment (PGHOST, PGDATABASE, PGUSER, …); a
// password the server asks for and neither gives is asked for on the terminal, unechoed. They
// use the cloud layer alone, print what was done and return the exit status; failures throw
// CloudError.
#pragma once

#include <string>

namespace corvane {

int initStore(const std::string& address);
int addStorePerson(const std::string& address, const std::string& role, const std::string& email,
                   const std::string& name, bool existingRole);

}  // namespace corvane
