// A throwaway git repository in a fresh temporary folder, worked on with the real git command and
// isolated from the user's and the system's git configuration. Used by one test thread.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.h"
#include "support/process.h"

namespace corvane::testing {

// No user or system configuration, and fixed identities and dates so that ids are reproducible.
inline std::map<std::string, std::string> gitEnvironment() {
    return {
        {"GIT_CONFIG_GLOBAL", "/dev/null"},
        {"GIT_CONFIG_NOSYSTEM", "1"},
        {"GIT_AUTHOR_NAME", "Ada Lovelace"},
        {"GIT_AUTHOR_EMAIL", "ada@example.org"},
        {"GIT_AUTHOR_DATE", "1500000000 +0200"},
        {"GIT_COMMITTER_NAME", "Charles Babbage"},
        {"GIT_COMMITTER_EMAIL", "charles@example.org"},
        {"GIT_COMMITTER_DATE", "1600000000 -0500"},
    };
}

class GitRepo {
  public:
    GitRepo() {
        std::filesystem::create_directory(path());
        git({"init", "--quiet", "--initial-branch=main"});
    }

    // The work tree.
    std::string path() const { return folder_.path() + "/repo"; }

    // What `git args...` prints (stdout and stderr); throws, failing the test, when git fails.
    std::string git(const std::vector<std::string>& args) const {
        std::vector<std::string> argv{"git", "-C", path()};
        argv.insert(argv.end(), args.begin(), args.end());
        auto result = runCommand(argv, gitEnvironment());
        if (result.status != 0) throw std::runtime_error("git failed: " + result.out);
        return result.out;
    }

    // The same with `input` on git's standard input.
    std::string git(const std::vector<std::string>& args, std::string_view input) {
        std::string file = folder_.path() + "/input-" + std::to_string(inputs_++);
        std::ofstream(file, std::ios::binary) << input;
        std::string script = "git";
        for (const auto& arg : args)
            script += " '" + arg + "'";
        auto result = runShell(script + " < '" + file + "'", gitEnvironment(), path());
        if (result.status != 0) throw std::runtime_error("git failed: " + result.out);
        return result.out;
    }

    // The first line git prints, such as an object id.
    std::string gitLine(const std::vector<std::string>& args) const {
        auto out = git(args);
        return out.substr(0, out.find('\n'));
    }

    // Writes an object with exactly these contents and returns its id.
    std::string writeObject(std::string_view type, std::string_view contents) {
        auto out = git({"hash-object", "-t", std::string(type), "-w", "--stdin"}, contents);
        return out.substr(0, out.find('\n'));
    }

    // An object's contents as git stores them.
    Bytes readObject(std::string_view type, const std::string& id) const {
        return toBytes(git({"cat-file", std::string(type), id}));
    }

  private:
    TempDir folder_;
    int inputs_ = 0;
};

}  // namespace corvane::testing
