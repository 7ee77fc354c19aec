// `corvane store …`: the commands an administrator runs once to make a PostgreSQL database a
// team store, and once for each person who joins the team. They use the cloud layer alone, on
// the administrator's connection, print what was done and return the exit status; failures
// throw CloudError.
#pragma once

#include <string>

namespace corvane {

int initStore(const std::string& address);
int addStorePerson(const std::string& address, const std::string& role, const std::string& email,
                   const std::string& name);

}  // namespace corvane
