// On a machine with several accounts, a person's daemon serves that person only, and their store
// and cache are theirs alone. The other person is the unprivileged account "nobody", run with
// runuser: the test needs root, and is skipped without it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <memory>
#include <regex>

#include "e2e/corvane_server.h"
#include "e2e/git_test_repo.h"

namespace corvane::testing {
namespace {

// argv run as the account "nobody", with git's settings and a home it may write.
std::vector<std::string> asNobody(const std::vector<std::string>& argv) {
    std::vector<std::string> command{"runuser", "-u", "nobody", "--"};
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

bool canRunAsNobody() {
    return ::geteuid() == 0 && runCommand(asNobody({"true"})).status == 0;
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

struct OtherUsers : GitServerTest {};

TEST_F(OtherUsers, AnotherUsersClientIsRefusedAndBuildFarmsAreServed) {
    if (!canRunAsNobody()) GTEST_SKIP() << "needs root and runuser to act as another account";
    create("tools");
    std::string source = dir("source");
    sh(source,
       "git init -q -b main && echo one > a && git add a && git commit -qm one && "
       "git push -q " +
           server.url("tools") + " main");
    auto own = server.run({"git", "ls-remote", server.url("tools")});
    EXPECT_EQ(own.status, 0) << own.out;
    auto other = runCommand(asNobody(
        {"env", "HOME=/tmp", "GIT_CONFIG_NOSYSTEM=1", "git", "ls-remote", server.url("tools")}));
    EXPECT_NE(other.status, 0);
    EXPECT_NE(other.out.find("remote error: access denied: this Corvane belongs to another user"),
              std::string::npos)
        << other.out;
    EXPECT_TRUE(
        server.process().waitForOutput("Refused a connection of user " + std::to_string(65534)));

    // The parallel clones of a build farm all get through.
    std::vector<std::future<CommandResult>> clones;
    for (int i = 0; i < 32; ++i) {
        std::string into = dir("clone" + std::to_string(i));
        clones.push_back(std::async(std::launch::async, [&, into] {
            return shTry(into, "git clone -q " + server.url("tools") + " . 2>&1");
        }));
    }
    for (auto& clone : clones) {
        auto result = clone.get();
        EXPECT_EQ(result.status, 0) << result.out;
    }

    // Nothing of the store or the cache is open to other users.
    EXPECT_EQ(modeOf(server.home() + "/data/corvane") & 077, 0u);
    EXPECT_EQ(modeOf(server.home() + "/data/corvane/cloud.sqlite") & 077, 0u);
    EXPECT_EQ(modeOf(server.home() + "/cache/corvane") & 077, 0u);
    ::chmod((server.home() + "/data/corvane/cloud.sqlite").c_str(), 0620);
    auto refused = server.run({CORVANE_BINARY, "list"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.out.find("can be changed by other users; make it private with chmod 600"),
              std::string::npos)
        << refused.out;
}

TEST(SharedMachine, APortHeldByAnotherUsersCorvaneIsNamedAsSuch) {
    if (!canRunAsNobody()) GTEST_SKIP() << "needs root and runuser to act as another account";
    if (runCommand(asNobody({"test", "-x", CORVANE_BINARY}), {}, "/tmp").status != 0)
        GTEST_SKIP() << "the account nobody cannot run " << CORVANE_BINARY
                     << " (a folder above it is private)";
    TempDir home;
    ::chown(home.path().c_str(), 65534, 65534);
    BackgroundProcess theirs(asNobody(
        {"env", "HOME=" + home.path(), "XDG_DATA_HOME=" + home.path() + "/data",
         "XDG_CACHE_HOME=" + home.path() + "/cache", CORVANE_BINARY, "serve", "--port", "0"}));
    ASSERT_TRUE(theirs.waitForOutput("Listening on port ")) << theirs.output();
    std::smatch match;
    std::string output = theirs.output();
    ASSERT_TRUE(std::regex_search(output, match, std::regex("Listening on port ([0-9]+)")));
    std::string port = match[1];

    TempDir mine;
    auto ours = runCommand({CORVANE_BINARY, "serve", "--port", port},
                           {{"HOME", mine.path()},
                            {"XDG_DATA_HOME", mine.path() + "/data"},
                            {"XDG_CACHE_HOME", mine.path() + "/cache"}});
    EXPECT_EQ(ours.status, 1);
    EXPECT_NE(ours.out.find("Port " + port + " is held by another user's Corvane"),
              std::string::npos)
        << ours.out;
    auto line = runCommand({CORVANE_BINARY, "git-config", "--port", "9419"});
    EXPECT_EQ(line.out,
              "git config --global url.git://localhost:9419/.insteadOf git://localhost/\n");
}

// A program of another user's listening on a local socket, printing what it is handed.
std::unique_ptr<BackgroundProcess> listenAsNobody(const std::string& socket) {
    auto listener = std::make_unique<BackgroundProcess>(
        asNobody({"python3", "-c",
                  "import socket, sys\n"
                  "s = socket.socket(socket.AF_UNIX)\n"
                  "s.bind(sys.argv[1])\n"
                  "s.listen(5)\n"
                  "print('listening', flush=True)\n"
                  "while True:\n"
                  "    c, _ = s.accept()\n"
                  "    c.settimeout(3)\n"
                  "    try:\n"
                  "        print('handed:', c.recv(1000), flush=True)\n"
                  "        c.sendall(b'ok\\n')\n"
                  "    except OSError:\n"
                  "        pass\n",
                  socket}));
    EXPECT_TRUE(listener->waitForOutput("listening")) << listener->output();
    return listener;
}

TEST(SharedMachine, AShareLinkIsNeverHandedToAnotherUsersProgram) {
    if (!canRunAsNobody()) GTEST_SKIP() << "needs root and runuser to act as another account";
    TempDir home;
    TempDir shared;  // a temporary folder all users share, as /tmp
    ::chmod(shared.path().c_str(), 01777);
    // No runtime folder: the window's socket goes to the temporary folder.
    auto corvane = [&](const std::string& link) {
        return std::vector<std::string>{"env",          "-u",        "XDG_RUNTIME_DIR",
                                        CORVANE_BINARY, "--verbose", link};
    };
    std::map<std::string, std::string> env = {
        {"HOME", home.path()},
        {"XDG_DATA_HOME", home.path() + "/data"},
        {"XDG_CACHE_HOME", home.path() + "/cache"},
        {"TMPDIR", shared.path()},
        {"QT_QPA_PLATFORM", "offscreen"},
    };
    std::string uid = std::to_string(::geteuid());

    // The other user listens first where a window of ours would. Ours opens a window of its
    // own instead of handing the link over and leaving.
    auto squatter = listenAsNobody(shared.path() + "/corvane-" + uid + ".socket");
    {
        BackgroundProcess window(corvane("corvane://share/secret#tools"), env);
        EXPECT_TRUE(window.waitForOutput("Fetched 0 shared repositories")) << window.output();
        EXPECT_EQ(window.stop(SIGTERM), 0) << window.output();
    }
    EXPECT_EQ(squatter->output().find("secret"), std::string::npos) << squatter->output();

    // The other user made the folder ours would be first, and listens in it: refused clearly.
    TempDir again;
    ::chmod(again.path().c_str(), 01777);
    env["TMPDIR"] = again.path();
    std::string folder = again.path() + "/corvane-" + uid;
    ASSERT_EQ(runCommand(asNobody({"mkdir", "-m", "777", folder})).status, 0);
    auto inside = listenAsNobody(folder + "/corvane.socket");
    {
        BackgroundProcess window(corvane("corvane://share/secret#tools"), env);
        EXPECT_TRUE(window.waitForOutput("The folder " + folder + " belongs to another user"))
            << window.output();
    }
    EXPECT_EQ(inside->output().find("secret"), std::string::npos) << inside->output();
}

}  // namespace
}  // namespace corvane::testing
