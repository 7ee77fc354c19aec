#include "protocol/server.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>

#include "base/error.h"
#include "objects/sha1.h"
#include "protocol/git_socket.h"
#include "protocol/peer_user.h"
#include "protocol/request_line.h"
#include "storage/repository.h"
#include "support/error_message.h"
#include "support/tcp_client.h"
#include "support/trace_capture.h"

namespace corvane {

namespace {

using testing::pktLine;
using testing::TcpClient;
using testing::TraceCapture;
using namespace std::string_literals;

TEST(RequestLine, SplitsCommandOwnerAndName) {
    EXPECT_EQ(parseRequestLine("git-upload-pack /tools\0host=localhost\0"s),
              (RequestLine{"git-upload-pack", "/tools", "__defaultOwner__", "tools"}));
    EXPECT_EQ(parseRequestLine("git-receive-pack /alice/my tools\0"s),
              (RequestLine{"git-receive-pack", "/alice/my tools", "alice", "my tools"}));
    // Only an exact path names a repository: no letter is taken for a "/" that is not there.
    auto error = [](std::string_view line) {
        return testing::errorMessage([&] { parseRequestLine(line); });
    };
    EXPECT_EQ(error("git-upload-pack xtools\0"s),
              "Invalid request: the path does not start with /");
    EXPECT_EQ(error("git-upload-pack \0"s), "Invalid request: the path does not start with /");
    EXPECT_EQ(error("git-upload-pack /\0"s), "Invalid request: the path names no repository");
    EXPECT_EQ(error("git-upload-pack /alice/\0"s), "Invalid request: the path names no repository");
    EXPECT_EQ(error("git-upload-pack //tools\0"s), "Invalid request: the path names no owner");
    // Nor is a name no repository can have: the names `corvane create` refuses.
    EXPECT_EQ(error("git-receive-pack /alice/tools/x\0"s),
              "Invalid request: Name can not contain /");
    EXPECT_EQ(error("git-upload-pack /..\0"s), "Invalid request: Name can not be . or ..");
    EXPECT_EQ(error("git-upload-pack /a\nb\0"s),
              "Invalid request: Name can not contain control characters such as newlines or tabs");
    EXPECT_EQ(error("git-upload-pack /a\tb/tools\0"s),
              "Invalid request: the owner: Name can not contain control characters such as "
              "newlines or tabs");
    EXPECT_EQ(error("git-upload-pack /\xff\0"s), "Invalid request: Name is not valid UTF-8");
    EXPECT_EQ(error("git-upload-pack /" + std::string(5000, 'x') + "\0"s),
              "Invalid request: Name can not be longer than 255 bytes");
    EXPECT_EQ(testing::errorMessage([] { parseRequestLine("git-upload-pack\0"s); }),
              "Invalid request");
    EXPECT_EQ(testing::errorMessage([] { parseRequestLine("git-upload-pack /tools"); }),
              "Invalid request");
}

TEST(PeerUsers, OnlyAConnectedClientSocketVouchesForItsOwner) {
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    TcpClient client(ntohs(address.sin_port));
    int accepted = ::accept(listener, nullptr, nullptr);
    ASSERT_GE(accepted, 0);
    PeerUsers peerUsers;
    EXPECT_EQ(peerUsers.ownerOfPeer(accepted), ::geteuid());

    // The attack: a client sends its whole request and closes before the daemon asks. Its
    // socket lingers in the kernel's tables as user 0's (TIME-WAIT), which a daemon run as
    // root took for itself.
    client.send("request");
    client.close();
    char buffer[16];
    EXPECT_EQ(::recv(accepted, buffer, sizeof buffer, 0), 7);
    EXPECT_EQ(::recv(accepted, buffer, sizeof buffer, 0), 0);  // the client's FIN is here
    int one = 1;  // acknowledged at once, which ends the client's side in TIME-WAIT
    ::setsockopt(accepted, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
    EXPECT_EQ(testing::errorMessage([&] { peerUsers.ownerOfPeer(accepted); }),
              "the client's socket is no longer connected, or unknown to the kernel");
    ::close(accepted);
    ::close(listener);
}

// A command that answers one line and can be told to fail or to wait for a partner.
class EchoCommand : public ServerCommand {
  public:
    EchoCommand(GitSocket& socket, std::shared_ptr<Repository> repository,
                std::function<void(GitSocket&)> body)
        : socket_(socket), repository_(std::move(repository)), body_(std::move(body)) {}
    void run() override {
        socket_.writePktLine("repo " + repository_->owner() + " " + repository_->name() + "\n");
        if (body_) body_(socket_);
    }

  private:
    GitSocket& socket_;
    std::shared_ptr<Repository> repository_;
    std::function<void(GitSocket&)> body_;
};

struct ServerFixture : ::testing::Test {
    // What commands share with the test; declared first so it outlives the server's threads.
    std::mutex mutex;
    std::condition_variable arrived;
    int inside = 0;
    std::function<void(GitSocket&)> body;
    Server::Timeouts timeouts{std::chrono::milliseconds(300), std::chrono::milliseconds(300)};
    std::unique_ptr<Server> server;

    void SetUp() override {
        auto lookup = [](const std::string& name, const std::string& owner) {
            if (name == "missing") throw Error("private repository missing does not exist");
            return std::make_shared<Repository>(hexString(sha1(asBytes(name))), owner, name,
                                                std::nullopt, std::nullopt, RepositoryContent{}, 0);
        };
        CommandTable commands;
        commands["git-upload-pack"] = [this](GitSocket& socket, std::shared_ptr<Repository> r) {
            return std::make_unique<EchoCommand>(socket, std::move(r), body);
        };
        server = std::make_unique<Server>(lookup, commands, timeouts);
        ASSERT_TRUE(server->start(0));
    }

    std::string request(const std::string& line) {
        TcpClient client(server->port());
        client.send(pktLine(line));
        return client.readAll();
    }
};

TEST_F(ServerFixture, DispatchesToTheNamedRepositoryAndServingGoesOnAfterBadRequests) {
    TraceCapture log;
    EXPECT_EQ(request("git-upload-pack /alice/tools\0host=localhost\0"s),
              pktLine("repo alice tools\n"));
    EXPECT_EQ(request("git-upload-pack /missing\0"s), "");
    EXPECT_TRUE(log.waitFor("private repository missing does not exist"));
    EXPECT_EQ(request("git-archive /tools\0"s), "");
    EXPECT_TRUE(log.waitFor("Invalid command: git-archive"));
    EXPECT_EQ(request("git-upload-pack /tools"), "");
    EXPECT_TRUE(log.waitFor("Invalid request"));
    EXPECT_EQ(request("git-upload-pack xtools\0"s), "");
    EXPECT_TRUE(log.waitFor("Invalid request: the path does not start with /"));
    {
        TcpClient garbage(server->port());
        garbage.send("\x01\x02garbage bytes");
        EXPECT_EQ(garbage.readAll(), "");
    }
    EXPECT_TRUE(log.waitFor("Invalid pkt-len: \x01\x02ga"));
    {
        // A client whose user was asked, cut short later: its stream ends and nothing breaks.
        body = [](GitSocket& socket) { socket.readPktLine(); };
        TcpClient cut(server->port());
        cut.send(pktLine("git-upload-pack /tools\0"s));
        std::string repo = pktLine("repo __defaultOwner__ tools\n");
        EXPECT_EQ(cut.read(repo.size()), repo);
        cut.send("0040have 0123");
        cut.shutdownWrite();
        EXPECT_EQ(cut.readAll(), "");
        body = nullptr;
    }
    EXPECT_TRUE(log.waitFor("EOF"));
    EXPECT_TRUE(log.contains("* git-upload-pack /missing"));
    EXPECT_EQ(request("git-upload-pack /tools\0host=localhost\0"s),
              pktLine("repo __defaultOwner__ tools\n"));
}

TEST_F(ServerFixture, CommandFailureGoesOnBandThreeOnlyWithASideBand) {
    body = [](GitSocket& socket) {
        if (socket.readPktLine() == "side-band") socket.setCapabilities({Capability::sideBand64k});
        throw Error("Something broke");
    };
    TcpClient withBand(server->port());
    withBand.send(pktLine("git-upload-pack /tools\0"s) + pktLine("side-band"));
    EXPECT_EQ(withBand.readAll(),
              pktLine("repo __defaultOwner__ tools\n") + pktLine("\x03Something broke"));

    TcpClient without(server->port());
    without.send(pktLine("git-upload-pack /tools\0"s) + pktLine("plain"));
    EXPECT_EQ(without.readAll(), pktLine("repo __defaultOwner__ tools\n"));
}

TEST_F(ServerFixture, ServesTwoConnectionsAtOnce) {
    body = [&](GitSocket&) {
        std::unique_lock lock(mutex);
        ++inside;
        arrived.notify_all();
        // Each command finishes only once both are running at the same time.
        if (!arrived.wait_for(lock, std::chrono::seconds(10), [&] { return inside == 2; })) {
            throw Error("served one at a time");
        }
    };
    auto first = std::async(std::launch::async, [&] { return request("git-upload-pack /a\0"s); });
    auto second = std::async(std::launch::async, [&] { return request("git-upload-pack /b\0"s); });
    EXPECT_EQ(first.get(), pktLine("repo __defaultOwner__ a\n"));
    EXPECT_EQ(second.get(), pktLine("repo __defaultOwner__ b\n"));
}

TEST_F(ServerFixture, AnswerSurvivesAClientThatSentMoreThanWasRead) {
    const std::string answer(200000, 'z');
    body = [answer](GitSocket& socket) { socket.sendAll(asBytes(answer)); };
    TcpClient client(server->port());
    // Lines the command never reads: closing on them must not reset the connection.
    std::string unread;
    for (int i = 0; i < 2000; ++i)
        unread += pktLine("have 0123456789012345678901234567890123456789\n");
    client.send(pktLine("git-upload-pack /tools\0"s) + unread);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(client.readAll(), pktLine("repo __defaultOwner__ tools\n") + answer);
}

TEST_F(ServerFixture, ClientsThatKeepTheServerWaitingAreDropped) {
    TraceCapture log;
    {
        TcpClient silent(server->port());  // connects and says nothing
        EXPECT_EQ(silent.readAll(), "");
    }
    EXPECT_TRUE(log.waitFor("Timed out waiting for the client"));
    body = [](GitSocket& socket) { socket.readPktLine(); };  // waits for a line never sent
    TcpClient stalled(server->port());
    stalled.send(pktLine("git-upload-pack /tools\0"s));
    EXPECT_EQ(stalled.readAll(), pktLine("repo __defaultOwner__ tools\n"));
    EXPECT_EQ(request("git-upload-pack /tools\0"s), pktLine("repo __defaultOwner__ tools\n"));
}

TEST_F(ServerFixture, AcceptingGoesOnAfterRunningOutOfDescriptors) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "AddressSanitizer's runtime needs descriptors of its own";
#endif
    TraceCapture log;
    TcpClient client;  // its own descriptor is taken before they run out
    // Every descriptor the process may have left is taken.
    std::vector<int> taken;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
        taken.push_back(fd);
    ASSERT_EQ(errno, EMFILE);
    client.connect(server->port());  // queued; accepting it needs one more descriptor
    bool failed = log.waitFor("Failed to accept a connection: Too many open files; trying again");
    for (int fd : taken)
        ::close(fd);
    EXPECT_TRUE(failed);
    client.send(pktLine("git-upload-pack /tools\0"s));
    EXPECT_EQ(client.readAll(), pktLine("repo __defaultOwner__ tools\n"));
}

TEST(Server, StartFailsWhenThePortIsTaken) {
    Server first({}, {});
    ASSERT_TRUE(first.start(0));
    TraceCapture log;
    Server second({}, {});
    EXPECT_FALSE(second.start(first.port()));
    EXPECT_TRUE(log.contains("Failed to start server on port " + std::to_string(first.port())));
}

}  // namespace
}  // namespace corvane
