// The desktop application as a user starts it: `corvane` without a command, here on Qt's
// offscreen platform.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "support/process.h"

namespace corvane::testing {
namespace {

TEST(DesktopApplication, OpensWithoutItsPortHandsRequestsOverAndQuitsCleanly) {
    TempDir dir;
    ::chmod(dir.path().c_str(), 0700);  // a runtime folder must be private
    std::map<std::string, std::string> env = {
        {"HOME", dir.path()},
        {"XDG_DATA_HOME", dir.path() + "/data"},
        {"XDG_CACHE_HOME", dir.path() + "/cache"},
        {"XDG_RUNTIME_DIR", dir.path()},
        {"QT_QPA_PLATFORM", "offscreen"},
    };
    // The window always serves port 9418: another program holds it here (or already did).
    int holder = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(9418);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        ::listen(holder, 1);

    BackgroundProcess app({CORVANE_BINARY, "--verbose"}, env);
    // The window opens anyway, loads the list, and says why git clients cannot reach it.
    ASSERT_TRUE(app.waitForOutput("Failed to start server on port 9418")) << app.output();
    ASSERT_TRUE(app.waitForOutput("Fetched 0 shared repositories")) << app.output();

    // Later starts hand their request to the running one and leave (one that kept running
    // instead would be stopped by `timeout`, status 124).
    auto second = runCommand({"timeout", "20", CORVANE_BINARY}, env);
    EXPECT_EQ(second.status, 0) << second.out;
    auto link = runCommand({"timeout", "20", CORVANE_BINARY, "corvane://share/abc#team"}, env);
    EXPECT_EQ(link.status, 0) << link.out;
    EXPECT_TRUE(app.waitForOutput("Opening the join sheet for corvane://share/abc#team"));
    EXPECT_EQ(app.output().find("Listening on port"), std::string::npos);

    EXPECT_EQ(app.stop(SIGTERM), 0) << app.output();
    EXPECT_NE(app.output().find("Quitting"), std::string::npos);
    ::close(holder);
}

}  // namespace
}  // namespace corvane::testing
