// Working repositories made with the real git for end-to-end tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "e2e/corvane_server.h"

namespace corvane::testing {

inline const std::map<std::string, std::string> kGitEnvironment = {
    {"GIT_CONFIG_NOSYSTEM", "1"},  {"GIT_CONFIG_GLOBAL", "/dev/null"},
    {"GIT_AUTHOR_NAME", "Ada"},    {"GIT_AUTHOR_EMAIL", "ada@example.com"},
    {"GIT_COMMITTER_NAME", "Ada"}, {"GIT_COMMITTER_EMAIL", "ada@example.com"},
    {"GIT_TERMINAL_PROMPT", "0"},
};

// Runs a shell script with git's environment in `dir`; expects success and returns the output.
inline std::string sh(const std::string& dir, const std::string& script) {
    auto result = runShell(script, kGitEnvironment, dir);
    EXPECT_EQ(result.status, 0) << script << "\n" << result.out;
    return result.out;
}

// Same, but returns the whole result for commands expected to fail.
inline CommandResult shTry(const std::string& dir, const std::string& script) {
    return runShell(script, kGitEnvironment, dir);
}

inline std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

inline std::string sharedDir() {
    return CORVANE_SHARED_DIR;
}

// A running `corvane serve` and a folder for the working repositories of one test.
struct GitServerTest : ::testing::Test {
    CorvaneServer server;
    TempDir work;

    // A new folder under the test's own.
    std::string dir(const std::string& name) {
        std::string path = work.path() + "/" + name;
        std::filesystem::create_directories(path);
        return path;
    }
    // A repository made with `corvane create`, as another process would.
    void create(const std::string& name) {
        auto result = server.run({CORVANE_BINARY, "create", name});
        ASSERT_EQ(result.status, 0) << result.out;
    }
};

}  // namespace corvane::testing
