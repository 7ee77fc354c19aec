#include "app/command_line.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "app/application.h"
#include "app/error_description.h"
#include "app/quoted_name.h"
#include "app/store_commands.h"
#include "base/error.h"
#include "base/queues.h"
#include "base/trace.h"
#include "base/version.h"
#include "cloud/record_id.h"

namespace corvane {

namespace {

constexpr const char* kUsage =
    "usage: corvane                    the window, with the git daemon inside\n"
    "       corvane serve [--port N]   the git daemon alone, until SIGINT or SIGTERM\n"
    "       corvane create NAME\n"
    "       corvane list\n"
    "       corvane delete NAME\n"
    "       corvane store init ADDRESS          make a PostgreSQL database a team store\n"
    "       corvane store add-person ADDRESS ROLE EMAIL NAME\n"
    "options: --help, --version, --verbose (the log of cloud operations on stderr)\n";

class UsageError : public Error {
  public:
    using Error::Error;
};

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

// Runs an asynchronous backend operation on a plain main loop until it completes.
template <typename T, typename Start>
T await(LoopMainQueue& mainQueue, Start start) {
    std::optional<Result<T>> outcome;
    start([&](Result<T> result) {
        outcome.emplace(std::move(result));
        mainQueue.stop();
    });
    mainQueue.run();
    return std::move(outcome->value());
}

// The failure as people are told it: "Failed to delete 'tools': Record does not exist."
Error described(const std::string& message) {
    return Error(message + ": " + describeError(std::current_exception()).text);
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

std::shared_ptr<Repository> findOwn(Backend& backend, const std::string& name) {
    return backend.fetchRepository(name, std::string(cloud::kCurrentUserDefaultName));
}

int create(const std::string& typed) {
    // The names the add sheet refuses, refused the same way.
    auto first = typed.find_first_not_of(" \t\r\n\v\f");
    auto last = typed.find_last_not_of(" \t\r\n\v\f");
    std::string name = first == std::string::npos ? "" : typed.substr(first, last - first + 1);
    if (name.empty()) throw UsageError("Name can not be empty");
    if (name.find('/') != std::string::npos) throw UsageError("Name can not contain /");
    LoopMainQueue mainQueue;
    Application application(mainQueue);
    Backend& backend = application.state().backend();
    try {
        // Only a repository that is not there may be created; one that cannot be read (a
        // damaged record, a store failure) is refused with its error, never created over.
        bool exists = true;
        try {
            findOwn(backend, name);
        } catch (const NotFound&) {
            exists = false;
        }
        if (exists) throw Error("a repository with this name already exists");
        auto repository = await<std::shared_ptr<Repository>>(
            mainQueue, [&](auto done) { backend.createRepository(name, done); });
        std::printf("%s\n", repository->url().c_str());
    } catch (const std::exception&) {
        throw described("Failed to create " + quotedName(name));
    }
    return 0;
}

int list() {
    LoopMainQueue mainQueue;
    Application application(mainQueue);
    std::vector<std::shared_ptr<Repository>> repositories;
    try {
        repositories = await<std::vector<std::shared_ptr<Repository>>>(
            mainQueue, [&](auto done) { application.state().backend().fetchRepositories(done); });
    } catch (const std::exception&) {
        throw described("Failed to load repositories");
    }
    for (const auto& repository : repositories) {
        std::printf("%s\t%s\n", repository->name().c_str(), repository->url().c_str());
    }
    return 0;
}

int remove(const std::string& name) {
    LoopMainQueue mainQueue;
    Application application(mainQueue);
    Backend& backend = application.state().backend();
    try {
        auto repository = findOwn(backend, name);
        await<Done>(mainQueue, [&](auto done) { backend.deleteRepository(repository, done); });
    } catch (const std::exception&) {
        throw described("Failed to delete " + quotedName(name));
    }
    return 0;
}

std::string oneName(const std::vector<std::string>& args) {
    if (args.size() != 1) throw UsageError("Expected one repository name");
    return args[0];
}

int store(const std::vector<std::string>& args) {
    if (args.size() == 2 && args[0] == "init") return initStore(args[1]);
    if (args.size() >= 5 && args[0] == "add-person") {
        std::string name = args[4];
        for (std::size_t i = 5; i < args.size(); ++i)
            name += " " + args[i];
        return addStorePerson(args[1], args[2], args[3], name);
    }
    throw UsageError("Expected store init ADDRESS or store add-person ADDRESS ROLE EMAIL NAME");
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
        if (command == "create") return create(oneName(args));
        if (command == "list" && args.empty()) return list();
        if (command == "delete") return remove(oneName(args));
        if (command == "store") return store(args);
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
