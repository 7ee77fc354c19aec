#include "protocol/git_socket.h"

#include <gtest/gtest.h>

#include <future>

#include "base/error.h"
#include "objects/sha1.h"
#include "protocol/socket_pair.h"
#include "support/error_message.h"

namespace corvane {
namespace {

using testing::SocketPair;

std::string readError(SocketPair& pair) {
    return testing::errorMessage([&] { pair.socket->readPktLine(); });
}

TEST(GitSocket, ReadsPktLinesAndRefusesBadLengths) {
    SocketPair pair;
    pair.peerWrite("0000000ahello\n0009want\n0008\r\nx\n");
    EXPECT_EQ(pair.socket->readPktLine(), "");
    EXPECT_EQ(pair.socket->readPktLine(), "hello");
    EXPECT_EQ(pair.socket->readPktLine(), "want");
    EXPECT_EQ(pair.socket->readPktLine(), "x");  // newlines trimmed at both ends

    pair.peerWrite("0004");
    EXPECT_EQ(readError(pair), "Invalid pkt-len: 0004");
    pair.peerWrite("00zz");
    EXPECT_EQ(readError(pair), "Invalid pkt-len: 00zz");
    pair.peerWrite("0003");
    EXPECT_EQ(readError(pair), "Invalid pkt-len: 0003");
    pair.peerWrite("1005" + std::string(4097, 'a'));
    EXPECT_EQ(readError(pair), "Read size of 4097 exceeds maximum of 4096");
}

TEST(GitSocket, AcceptsTheLargestPayloadAndUppercaseLength) {
    SocketPair pair;
    std::string payload(4096, 'p');
    std::thread writer([&] { pair.peerWrite("1004" + payload + "000A" + "abcdef"); });
    EXPECT_EQ(pair.socket->readPktLine(), payload);
    EXPECT_EQ(pair.socket->readPktLine(), "abcdef");
    writer.join();
}

TEST(GitSocket, ReportsEncodingErrorsAndEndOfStream) {
    SocketPair pair;
    pair.peerWrite("0006\xc3\x28");
    EXPECT_EQ(readError(pair), "UTF-8 encoding error");
    SocketPair cut;
    cut.peerWrite("0010hal");
    cut.closePeer();
    EXPECT_EQ(readError(cut), "EOF");
}

TEST(Socket, FillBufferCompactsUnreadBytesToTheFront) {
    SocketPair pair;
    pair.peerWrite(std::string(4094, 'a') + "xy");
    pair.socket->fillBuffer(4096);
    pair.socket->consume(4094);
    EXPECT_EQ(pair.socket->recvBufOffset(), 4094u);
    pair.peerWrite("zw");
    pair.socket->fillBuffer(4);
    EXPECT_EQ(pair.socket->recvBufOffset(), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(pair.socket->unread()), 4), "xyzw");
}

TEST(GitSocket, WritesPktLinesWithinTheLimit) {
    SocketPair pair;
    auto sent = std::async(std::launch::async, [&] {
        pair.socket->writePktLine("abc\n");
        pair.socket->writePktLine(kFlush);
        pair.socket->writePktLine(std::string(65516, 'm'));
        EXPECT_EQ(
            testing::errorMessage([&] { pair.socket->writePktLine(std::string(65517, 'n')); }),
            "PktLine size exceeds limit");
        Bytes appended;
        GitSocket::appendPktLine("ok\n", appended);
        GitSocket::appendPktLine(kFlush, appended);
        EXPECT_EQ(asText(appended), "0007ok\n0000");
        pair.endWrites();
    });
    std::string wire = pair.peerReadAll();
    sent.get();
    EXPECT_EQ(wire.substr(0, 12), "0008abc\n0000");
    EXPECT_EQ(wire.substr(12, 4), "fff0");
    EXPECT_EQ(wire.size(), 12u + 4 + 65516);  // the refused line sent nothing
}

TEST(GitSocket, SideBand64kSendsFullPacketsAndKeepsTheRest) {
    SocketPair pair;
    pair.socket->setCapabilities({Capability::sideBand64k});
    Bytes data(70000);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 7);
    auto sent = std::async(std::launch::async, [&] {
        pair.socket->writeSideBandData(data);
        EXPECT_EQ(pair.socket->packBuffer().size(), 4485u);
        pair.socket->drainPackBuffer();
        pair.endWrites();
    });
    std::string wire = pair.peerReadAll();
    sent.get();
    ASSERT_EQ(wire.size(), 65520u + 4485 + 5);
    EXPECT_EQ(wire.substr(0, 5), std::string("fff0\x01"));
    EXPECT_EQ(wire.substr(65520, 5), std::string("118a\x01"));
    EXPECT_EQ(wire.substr(5, 65515), std::string(asText(data).substr(0, 65515)));
    EXPECT_EQ(wire.substr(65525), std::string(asText(data).substr(65515)));
}

TEST(GitSocket, SideBandLimitsPacketsTo1000Bytes) {
    SocketPair pair;
    pair.socket->setCapabilities({Capability::sideBand});
    EXPECT_EQ(pair.socket->sideBandLimit(), 995u);
    pair.socket->writeSideBandData(Bytes(2000, 'q'));
    pair.socket->drainPackBuffer();
    pair.endWrites();
    std::string wire = pair.peerReadAll();
    ASSERT_EQ(wire.size(), 2000u + 3 * 5);
    EXPECT_EQ(wire.substr(0, 5), std::string("03e8\x01"));
    EXPECT_EQ(wire.substr(1000, 5), std::string("03e8\x01"));
    EXPECT_EQ(wire.substr(2000, 5), std::string("000f\x01"));
}

TEST(GitSocket, UnframedPackDataIsStillHashed) {
    SocketPair pair;
    pair.socket->writeSideBandData(asBytes("PACK"));
    pair.socket->writeSideBandData(asBytes("data"));
    pair.endWrites();
    EXPECT_EQ(pair.peerReadAll(), "PACKdata");
    EXPECT_EQ(pair.socket->packHash().finish(), sha1(asBytes("PACKdata")));
}

TEST(GitSocket, ProgressOnlyWithSideBandAndWithoutQuiet) {
    for (auto [capabilities, expected] : std::vector<std::pair<Capabilities, std::string>>{
             {{}, ""},
             {{Capability::sideBand64k, Capability::quiet}, ""},
             {{Capability::sideBand64k},
              "000a\x02"
              "done\n"}}) {
        SocketPair pair;
        pair.socket->setCapabilities(capabilities);
        pair.socket->writeProgress("done\n");
        pair.endWrites();
        EXPECT_EQ(pair.peerReadAll(), expected);
    }
}

TEST(GitSocket, WritingToAGonePeerFailsWithTheSystemText) {
    SocketPair pair;
    pair.closePeer();
    EXPECT_EQ(testing::errorMessage([&] { pair.socket->writePktLine("hello\n"); }), "Broken pipe");
}

TEST(Capabilities, ParsesKnownWordsOnly) {
    EXPECT_EQ(parseCapabilities("side-band-64k foo"), Capabilities{Capability::sideBand64k});
    EXPECT_EQ(parseCapabilities("report-status delete-refs Side-band agent=git/2.39 atomic"),
              (Capabilities{Capability::reportStatus, Capability::deleteRefs, Capability::atomic}));
    EXPECT_TRUE(parseCapabilities("").empty());
    EXPECT_TRUE(agentCapability().starts_with("agent=Corvane/"));
}

}  // namespace
}  // namespace corvane
