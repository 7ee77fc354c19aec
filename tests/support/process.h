// Child processes for end-to-end tests: run a command to completion, or keep a server running
// in the background while its stderr is collected.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace corvane::testing {

struct CommandResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;  // stdout and stderr together
};

// Runs argv with extra environment variables in `cwd` (empty: current folder); waits for it.
CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {},
                         const std::string& cwd = "");

// A shell command line (for pipes); same rules.
CommandResult runShell(const std::string& script,
                       const std::map<std::string, std::string>& env = {},
                       const std::string& cwd = "");

class BackgroundProcess {
  public:
    BackgroundProcess(const std::vector<std::string>& argv,
                      const std::map<std::string, std::string>& env = {});
    ~BackgroundProcess();  // SIGTERM, then waits
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    std::string output();
    // Waits until the output contains `text`; false after the limit or when the process exited.
    bool waitForOutput(const std::string& text,
                       std::chrono::milliseconds limit = std::chrono::seconds(20));
    // Sends a signal and returns the exit status (128 + signal for a signal death).
    int stop(int signal);
    // Waits for the process to end by itself; returns its exit status.
    int wait() { return stop(0); }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::string output_;  // guarded by mutex_
    bool exited_ = false;
};

// A fresh temporary folder, removed with everything in it when destroyed.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace corvane::testing
