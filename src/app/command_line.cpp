#include "app/command_line.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "app/command_support.h"
#include "app/repository_commands.h"
#include "app/store_commands.h"
#include "base/error.h"
#include "base/queues.h"
#include "base/trace.h"
#include "base/version.h"

namespace corvane {

namespace {

constexpr const char* kName = "one repository name";
constexpr const char* kPath = "one repository, NAME or OWNER/NAME";

constexpr const char* kUsage =
    "usage: corvane                    the window, with the git daemon inside\n"
    "       corvane serve [--port N]   the git daemon alone, until SIGINT or SIGTERM\n"
    "       corvane git-config --port N        the git rule that sends git://localhost/ there\n"
    "       corvane create NAME\n"
    "       corvane list\n"
    "       corvane delete NAME\n"
    "       corvane repack NAME|OWNER/NAME     keep the repository in as few packs as fit\n"
    "       corvane share NAME|OWNER/NAME      print the link that invited people open\n"
    "       corvane invite NAME EMAIL          invite a person and print the link\n"
    "       corvane contributors NAME|OWNER/NAME\n"
    "       corvane uninvite NAME EMAIL\n"
    "       corvane join LINK\n"
    "       corvane leave OWNER/NAME\n"
    "       corvane whoami\n"
    "       corvane store init [ADDRESS]        make a PostgreSQL database a team store\n"
    "       corvane store add-person [--existing-role] [ADDRESS] ROLE EMAIL NAME\n"
    "options: --help, --version, --verbose (the log of cloud operations on stderr)\n";

std::uint16_t parsePort(const std::string& text) {
    std::size_t end = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(text, &end);
    } catch (const std::exception&) {
        end = 0;
    }
    if (end != text.size() || text.empty() || value > 65535) throw Error("Invalid port: " + text);
    return static_cast<std::uint16_t>(value);
}

// Serves until SIGINT or SIGTERM. The signals are blocked in every thread and taken by one
// waiting thread, which ends the main loop.
int serve(const std::vector<std::string>& args) {
    std::uint16_t port = Server::kDefaultPort;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--port" && i + 1 < args.size()) {
            port = parsePort(args[++i]);
        } else {
            throw UsageError("Unknown option: " + args[i]);
        }
    }

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    LoopMainQueue mainQueue;
    std::thread signalThread([&] {
        setThreadName("signals");
        int received = 0;
        sigwait(&signals, &received);
        mainQueue.stop();
    });

    int status = 0;
    try {
        Application application(mainQueue);
        if (application.didFinishLaunching(port)) {
            mainQueue.run();
        } else {
            status = 1;
            // On a shared machine the usual reason, and what to do about it.
            if (Server::heldByAnotherUsersCorvane(port)) {
                trace(TraceModule::error,
                      "Port " + std::to_string(port) +
                          " is held by another user's Corvane: run corvane serve --port with a "
                          "free port, and the git config line corvane git-config --port prints");
            }
        }
    } catch (...) {
        pthread_kill(signalThread.native_handle(), SIGTERM);
        signalThread.join();
        throw;
    }
    if (status != 0) pthread_kill(signalThread.native_handle(), SIGTERM);
    signalThread.join();
    return status;
}

const std::string& oneArgument(const std::vector<std::string>& args, const char* what) {
    if (args.size() != 1) throw UsageError(std::string("Expected ") + what);
    return args[0];
}

const std::vector<std::string>& twoArguments(const std::vector<std::string>& args,
                                             const char* what) {
    if (args.size() != 2) throw UsageError(std::string("Expected ") + what);
    return args;
}

// On a machine where another person's Corvane has 9418, git reaches this one's daemon on
// another port through an insteadOf rule.
int printGitConfig(const std::vector<std::string>& args) {
    if (args.size() != 2 || args[0] != "--port") throw UsageError("Expected --port N");
    auto port = parsePort(args[1]);
    if (port == Server::kDefaultPort) throw Error("git://localhost/ already means port 9418");
    std::printf("git config --global url.git://localhost:%u/.insteadOf git://localhost/\n",
                static_cast<unsigned>(port));
    return 0;
}

// A PostgreSQL address, as libpq takes it: a URI, or keyword=value pairs.
bool isAddress(const std::string& text) {
    return text.starts_with("postgresql://") || text.starts_with("postgres://") ||
           text.find('=') != std::string::npos;
}

int store(std::vector<std::string> args) {
    // Without an address on the command line, libpq's environment names the server.
    if (!args.empty() && args[0] == "init" && args.size() <= 2)
        return initStore(args.size() == 2 ? args[1] : "");
    if (!args.empty() && args[0] == "add-person") {
        args.erase(args.begin());
        bool existingRole = !args.empty() && args[0] == "--existing-role";
        if (existingRole) args.erase(args.begin());
        std::string address;
        if (!args.empty() && isAddress(args[0])) {
            address = args[0];
            args.erase(args.begin());
        }
        if (args.size() >= 3) {
            std::string name = args[2];
            for (std::size_t i = 3; i < args.size(); ++i)
                name += " " + args[i];
            return addStorePerson(address, args[0], args[1], name, existingRole);
        }
    }
    throw UsageError(
        "Expected store init [ADDRESS] or store add-person [--existing-role] [ADDRESS] ROLE "
        "EMAIL NAME");
}

}  // namespace

int runCommandLine(int argc, char** argv) {
    std::vector<std::string> args;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--version") {
            std::printf("corvane %s\n", versionString().value_or("(unknown version)").c_str());
            return 0;
        }
        if (arg == "--verbose" || arg == "-v") {
            verbose = true;
        } else {
            args.push_back(std::move(arg));
        }
    }
    if (args.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::string command = args.front();
    args.erase(args.begin());
    // The daemon logs; the other commands print their result and, when asked, the log.
    if (command != "serve" && !verbose) setTraceSink([](std::string_view) {});
    try {
        if (command == "serve") return serve(args);
        if (command == "create") return createRepository(oneArgument(args, kName));
        if (command == "list" && args.empty()) return listRepositories();
        if (command == "delete") return deleteRepository(oneArgument(args, kName));
        if (command == "repack") return repack(oneArgument(args, kPath));
        if (command == "share") return printShareLink(oneArgument(args, kPath));
        if (command == "invite") {
            const auto& nameAndEmail = twoArguments(args, "NAME EMAIL");
            return invite(nameAndEmail[0], nameAndEmail[1]);
        }
        if (command == "uninvite") {
            const auto& nameAndEmail = twoArguments(args, "NAME EMAIL");
            return uninvite(nameAndEmail[0], nameAndEmail[1]);
        }
        if (command == "contributors") return listContributors(oneArgument(args, kPath));
        if (command == "join") return join(oneArgument(args, "one share link"));
        if (command == "leave") return leave(oneArgument(args, "OWNER/NAME"));
        if (command == "whoami" && args.empty()) return whoami();
        if (command == "store") return store(args);
        if (command == "git-config") return printGitConfig(args);
        throw UsageError("Unknown command: " + command);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "%s\n%s", error.what(), kUsage);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}

}  // namespace corvane
