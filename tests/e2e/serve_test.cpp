#include <gtest/gtest.h>

#include <signal.h>

#include "e2e/corvane_server.h"
#include "support/tcp_client.h"

namespace corvane::testing {
namespace {

TEST(Serve, UnknownRepositoryFailsCleanlyAndServingGoesOn) {
    CorvaneServer server;
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto started = std::chrono::steady_clock::now();
        auto result = server.run({"git", "ls-remote", server.url("tools")});
        EXPECT_NE(result.status, 0) << result.out;
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    }
    {
        // Garbage, a request without NUL, and a peer that leaves mid-line.
        TcpClient garbage(server.port());
        garbage.send("GET / HTTP/1.1\r\n\r\n");
        EXPECT_EQ(garbage.readAll(), "");
    }
    EXPECT_TRUE(server.process().waitForOutput("private repository tools does not exist"));
    EXPECT_TRUE(server.process().waitForOutput("Invalid pkt-len: GET "));
    auto again = server.run({"git", "ls-remote", server.url("alice/tools")});
    EXPECT_NE(again.status, 0);
    EXPECT_TRUE(server.process().waitForOutput("shared repository tools does not exist"));
    EXPECT_EQ(server.process().stop(SIGTERM), 0) << server.process().output();
}

TEST(Serve, StopsWithStatusZeroOnInterrupt) {
    CorvaneServer server;
    EXPECT_EQ(server.process().stop(SIGINT), 0);
}

TEST(Serve, RefusesBadArguments) {
    auto result = runCommand({CORVANE_BINARY, "serve", "--port", "70000"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("Invalid port: 70000"), std::string::npos);
    EXPECT_EQ(runCommand({CORVANE_BINARY, "frobnicate"}).status, 2);
}

}  // namespace
}  // namespace corvane::testing
