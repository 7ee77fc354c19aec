#include "app/store_commands.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "base/error.h"
#include "cloud/postgres_connection.h"
#include "cloud/team_store.h"

namespace corvane {
namespace {

// A password typed on the terminal, not shown while it is typed.
std::string askPassword() {
    int tty = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (tty < 0)
        throw Error(
            "The cloud database asks for a password: give it in the address, in "
            "PGPASSWORD or in ~/.pgpass");
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{tty};
    const char prompt[] = "Password of the store's administrator: ";
    [[maybe_unused]] auto written = ::write(tty, prompt, sizeof prompt - 1);
    termios saved{};
    bool restore = ::tcgetattr(tty, &saved) == 0;
    if (restore) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(tty, TCSAFLUSH, &quiet);
    }
    std::string password;
    char c = 0;
    while (::read(tty, &c, 1) == 1 && c != '\n')
        password += c;
    if (restore) ::tcsetattr(tty, TCSAFLUSH, &saved);
    written = ::write(tty, "\n", 1);
    return password;
}

std::unique_ptr<cloud::PostgresConnection> openAdmin(const std::string& address) {
    return cloud::PostgresConnection::open(address, askPassword);
}

}  // namespace

int initStore(const std::string& address) {
    auto admin = openAdmin(address);
    for (const auto& left : cloud::initTeamStore(*admin))
        std::printf("Not made a person of the store: %s.\n", left.c_str());
    std::printf(
        "The team store is ready. Add each person with:\n"
        "  corvane store add-person ADDRESS ROLE EMAIL NAME\n");
    if (cloud::largeObjectsOpen(*admin)) {
        std::printf(
            "People can still make large objects in this database, which nobody but a "
            "superuser can remove. A superuser closes that, in this database, with:\n"
            "  %s;\n",
            cloud::kCloseLargeObjects);
    }
    return 0;
}

int addStorePerson(const std::string& address, const std::string& role, const std::string& email,
                   const std::string& name, bool existingRole) {
    auto admin = openAdmin(address);
    auto password = cloud::addPerson(*admin, cloud::NewPerson{role, email, name}, existingRole);
    if (!password) {
        std::printf("%s (%s) is a person of the store; their role keeps its password.\n",
                    role.c_str(), email.c_str());
        return 0;
    }
    std::printf(
        "%s (%s) is a person of the store, with a new role. They set, on their machine:\n"
        "  export CORVANE_CLOUD='%s'\n",
        role.c_str(), email.c_str(), admin->memberAddress(address, role, *password).c_str());
    return 0;
}

}  // namespace corvane
