// A team store of the e2e tests: a database of its own on the test server, made a team store
// and given its people with the product's own commands, by an administrator that is no
// superuser. People log in over TCP with the passwords `store add-person` printed, as they would
// from their own machines; each has a daemon, an object cache and a database role of their own.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "e2e/corvane_server.h"
#include "e2e/git_test_repo.h"

namespace corvane::testing {

class TeamStore {
  public:
    explicit TeamStore(std::string server, std::string name = "team")
        : server_(std::move(server)), database_(prefix_ + name) {
        const char* tcp = std::getenv("CORVANE_TEST_POSTGRES_TCP");
        tcp_ = tcp ? tcp : "";
        psql(server_ + " dbname=postgres", "CREATE DATABASE " + database_);
        corvane({"store", "init", address()});
    }
    ~TeamStore() {
        runCommand({"psql", "-qXc", "DROP DATABASE " + database_ + " WITH (FORCE)",
                    server_ + " dbname=postgres"});
    }

    // The administrator's address.
    std::string address() const { return server_ + " dbname=" + database_; }
    const std::string& database() const { return database_; }
    std::string role(const std::string& name) const { return prefix_ + name; }

    // Adds the person and returns the CORVANE_CLOUD their machine sets: the printed address,
    // reaching the server over TCP.
    std::string addPerson(const std::string& role, const std::string& email,
                          const std::string& name) {
        std::string output =
            corvane({"store", "add-person", address(), prefix_ + role, email, name});
        std::smatch match;
        EXPECT_TRUE(std::regex_search(
            output, match, std::regex("CORVANE_CLOUD='postgresql://([^:]+:[^@]+)@[^/]+/([^']+)'")))
            << output;
        if (tcp_.empty()) return "";
        std::smatch hostPort;
        std::regex_search(tcp_, hostPort, std::regex("host=(\\S+) port=(\\d+)"));
        return "postgresql://" + std::string(match[1]) + "@" + std::string(hostPort[1]) + ":" +
               std::string(hostPort[2]) + "/" + std::string(match[2]);
    }

    // Runs SQL as whoever `address` logs in as; the rows, "|"-separated, or the error.
    static CommandResult sql(const std::string& address, const std::string& statements) {
        auto result =
            runCommand({"psql", "-qXAt", "-v", "ON_ERROR_STOP=1", "-c", statements, address});
        result.out = trimmed(result.out);
        return result;
    }
    static std::string psql(const std::string& address, const std::string& statements) {
        auto result = sql(address, statements);
        EXPECT_EQ(result.status, 0) << statements << "\n" << result.out;
        return result.out;
    }

    CommandResult corvaneTry(const std::vector<std::string>& args) const {
        std::vector<std::string> argv{CORVANE_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        return runCommand(argv);
    }

  private:
    std::string corvane(const std::vector<std::string>& args) const {
        auto result = corvaneTry(args);
        EXPECT_EQ(result.status, 0) << result.out;
        return result.out;
    }

    std::string server_;
    // Roles belong to the whole server, and outlive the databases of earlier tests whose process
    // ids come round again: names unique to this store.
    std::string prefix_ = "e2e" + std::to_string(getpid()) + "_" +
                          std::to_string(std::random_device{}() % 1000000) + "_" +
                          std::to_string(++made()) + "_";
    static int& made() {
        static int count = 0;
        return count;
    }
    std::string database_;
    std::string tcp_;
};

// One person's machine: a daemon on the team store with a cache of its own.
struct Person {
    explicit Person(const std::string& address)
        : cloud(address), daemon("", {{"CORVANE_CLOUD", address}}) {}

    CommandResult corvane(const std::vector<std::string>& args) const {
        std::vector<std::string> argv{CORVANE_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        return daemon.run(argv);
    }
    std::string corvaneOk(const std::vector<std::string>& args) const {
        auto result = corvane(args);
        EXPECT_EQ(result.status, 0) << result.out;
        return result.out;
    }

    std::string cloud;
    CorvaneServer daemon;
};

inline std::string firstMatch(const std::string& text, const std::string& pattern) {
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(pattern))) {
        ADD_FAILURE() << "no " << pattern << " in: " << text;
        return "";
    }
    return match[0];
}

}  // namespace corvane::testing
