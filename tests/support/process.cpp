#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace corvane::testing {

namespace {

pid_t spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
            const std::string& cwd, int outputFd) {
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::dup2(outputFd, 1);
        ::dup2(outputFd, 2);
        int devnull = ::open("/dev/null", O_RDONLY);
        ::dup2(devnull, 0);
        for (const auto& [name, value] : env)
            ::setenv(name.c_str(), value.c_str(), 1);
        if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) ::_exit(127);
        std::vector<char*> args;
        for (const auto& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

int decodeStatus(int raw) {
    if (WIFEXITED(raw)) return WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
    return -1;
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, const std::string& cwd) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    pid_t pid = spawn(argv, env, cwd, fds[1]);
    ::close(fds[1]);
    CommandResult result;
    char buffer[65536];
    ssize_t received;
    while ((received = ::read(fds[0], buffer, sizeof buffer)) > 0) {
        result.out.append(buffer, static_cast<std::size_t>(received));
    }
    ::close(fds[0]);
    int raw = 0;
    ::waitpid(pid, &raw, 0);
    result.status = decodeStatus(raw);
    return result;
}

CommandResult runShell(const std::string& script, const std::map<std::string, std::string>& env,
                       const std::string& cwd) {
    return runCommand({"/bin/sh", "-c", script}, env, cwd);
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv,
                                     const std::map<std::string, std::string>& env) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    pid_ = spawn(argv, env, "", fds[1]);
    ::close(fds[1]);
    reader_ = std::thread([this, fd = fds[0]] {
        char buffer[4096];
        ssize_t received;
        while ((received = ::read(fd, buffer, sizeof buffer)) > 0) {
            std::lock_guard lock(mutex_);
            output_.append(buffer, static_cast<std::size_t>(received));
        }
        ::close(fd);
        std::lock_guard lock(mutex_);
        exited_ = true;
    });
}

BackgroundProcess::~BackgroundProcess() {
    if (status_ < 0) stop(SIGTERM);
}

std::string BackgroundProcess::output() {
    std::lock_guard lock(mutex_);
    return output_;
}

bool BackgroundProcess::waitForOutput(const std::string& text, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        {
            std::lock_guard lock(mutex_);
            if (output_.find(text) != std::string::npos) return true;
            if (exited_) return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int BackgroundProcess::stop(int signal) {
    if (status_ >= 0) return status_;
    ::kill(pid_, signal);
    int raw = 0;
    ::waitpid(pid_, &raw, 0);
    status_ = decodeStatus(raw);
    if (reader_.joinable()) reader_.join();
    return status_;
}

TempDir::TempDir() {
    auto base = std::filesystem::temp_directory_path() / "corvane-test-XXXXXX";
    std::string pattern = base.string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace corvane::testing
