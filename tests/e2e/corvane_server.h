// The built `corvane serve` on a kernel-chosen port with its own temporary XDG folders.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>

#include "support/process.h"

namespace corvane::testing {

class CorvaneServer {
  public:
    // A daemon with a store of its own, or on the store under `dataHome` (another daemon's),
    // always with a cache of its own; `environment` adds to or replaces its variables.
    explicit CorvaneServer(const std::string& dataHome = "",
                           const std::map<std::string, std::string>& environment = {})
        : env_{{"XDG_DATA_HOME", dataHome.empty() ? home_.path() + "/data" : dataHome},
               {"XDG_CACHE_HOME", home_.path() + "/cache"},
               {"HOME", home_.path()},
               {"GIT_CONFIG_NOSYSTEM", "1"},
               {"GIT_CONFIG_GLOBAL", "/dev/null"}} {
        for (const auto& [name, value] : environment)
            env_[name] = value;
        start();
    }

    // Stops the daemon with the signal (SIGKILL: as a crash would) and starts it again on the
    // same store and cache; the port changes.
    void restart(int signal) {
        process_->stop(signal);
        start();
    }

    std::string url(const std::string& path) const {
        return "git://127.0.0.1:" + std::to_string(port_) + "/" + path;
    }
    // Runs git, corvane or another tool with the server's environment.
    CommandResult run(const std::vector<std::string>& argv, const std::string& cwd = "") const {
        return runCommand(argv, env_, cwd);
    }
    const std::map<std::string, std::string>& environment() const { return env_; }
    std::uint16_t port() const { return static_cast<std::uint16_t>(port_); }
    BackgroundProcess& process() { return *process_; }
    const std::string& home() const { return home_.path(); }

  private:
    void start() {
        process_ = std::make_unique<BackgroundProcess>(
            std::vector<std::string>{CORVANE_BINARY, "serve", "--port", "0"}, env_);
        if (!process_->waitForOutput("Listening on port ")) {
            ADD_FAILURE() << "server did not start: " << process_->output();
            return;
        }
        std::smatch match;
        std::string output = process_->output();
        if (std::regex_search(output, match, std::regex("Listening on port ([0-9]+)\n"))) {
            port_ = std::stoi(match[1]);
        }
    }

    TempDir home_;
    std::map<std::string, std::string> env_;
    std::unique_ptr<BackgroundProcess> process_;
    int port_ = 0;
};

}  // namespace corvane::testing
