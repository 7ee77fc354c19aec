#include "app/store_commands.h"

#include <cstdio>

#include "cloud/postgres_connection.h"
#include "cloud/team_store.h"

namespace corvane {

int initStore(const std::string& address) {
    auto admin = cloud::PostgresConnection::open(address);
    cloud::initTeamStore(*admin);
    std::printf(
        "The team store is ready. Add each person with:\n"
        "  corvane store add-person ADDRESS ROLE EMAIL NAME\n");
    return 0;
}

int addStorePerson(const std::string& address, const std::string& role, const std::string& email,
                   const std::string& name) {
    auto admin = cloud::PostgresConnection::open(address);
    auto password = cloud::addPerson(*admin, cloud::NewPerson{role, email, name});
    if (!password) {
        std::printf("%s (%s) is a person of the store; their role keeps its password.\n",
                    role.c_str(), email.c_str());
        return 0;
    }
    std::printf(
        "%s (%s) is a person of the store, with a new role. They set, on their machine:\n"
        "  export CORVANE_CLOUD='%s'\n",
        role.c_str(), email.c_str(), cloud::memberAddress(address, role, *password).c_str());
    return 0;
}

}  // namespace corvane
