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

TEST(GitSocket, ReadsPktLinesAndRefusesBadLengthsEncodingAndEndOfStream) {
    SocketPair pair;
    pair.peerWrite("0000000ahello\n0009want\n0008\r\nx\n");
    EXPECT_EQ(pair.socket->readPktLine(), "");
    EXPECT_EQ(pair.socket->readPktLine(), "hello");
    EXPECT_EQ(pair.socket->readPktLine(), "want");
    EXPECT_EQ(pair.socket->readPktLine(), "x");  // newlines trimmed at both ends

    // The largest payload, and a length in capitals.
    std::string payload(4096, 'p');
    std::thread writer([&] { pair.peerWrite("1004" + payload + "000A" + "abcdef"); });
    EXPECT_EQ(pair.socket->readPktLine(), payload);
    EXPECT_EQ(pair.socket->readPktLine(), "abcdef");
    writer.join();

    pair.peerWrite("0004");
    EXPECT_EQ(readError(pair), "Invalid pkt-len: 0004");
    pair.peerWrite("00zz");
    EXPECT_EQ(readError(pair), "Invalid pkt-len: 00zz");
    pair.peerWrite("0003");
    EXPECT_EQ(readError(pair), "Invalid pkt-len: 0003");
    pair.peerWrite("1005" + std::string(4097, 'a'));
    EXPECT_EQ(readError(pair), "Read size of 4097 exceeds maximum of 4096");
    SocketPair notUtf8, cut;
    notUtf8.peerWrite("0006\xc3\x28");
    EXPECT_EQ(readError(notUtf8), "UTF-8 encoding error");
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

TEST(GitSocket, WritesPktLinesWithinTheLimitAndFailsOnAGonePeer) {
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

    SocketPair gone;
    gone.closePeer();
    EXPECT_EQ(testing::errorMessage([&] { gone.socket->writePktLine("hello\n"); }), "Broken pipe");
}

TEST(GitSocket, PackDataAndProgressTravelByTheChosenSideBand) {
    SocketPair pair;
    pair.socket->setCapabilities({Capability::sideBand64k});
    Bytes data(70000);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 7);
    auto sent = std::async(std::launch::async, [&] {
        pair.socket->writeSideBandData(data);
        EXPECT_EQ(pair.socket->packBuffer().size(), 4485u);  // only full packets went
        pair.socket->drainPackBuffer();
        pair.socket->writeProgress("done\n");
        pair.endWrites();
    });
    std::string wire = pair.peerReadAll();
    sent.get();
    ASSERT_EQ(wire.size(), 65520u + 4485 + 5 + 10);
    EXPECT_EQ(wire.substr(0, 5), std::string("fff0\x01"));
    EXPECT_EQ(wire.substr(65520, 5), std::string("118a\x01"));
    EXPECT_EQ(wire.substr(5, 65515), std::string(asText(data).substr(0, 65515)));
    EXPECT_EQ(wire.substr(65525, 4485), std::string(asText(data).substr(65515)));
    EXPECT_EQ(wire.substr(70010), std::string("000a\x02") + "done\n");

    // The old side-band carries 995 bytes a packet; quiet silences progress; without a
    // side-band there is no progress and pack data goes unframed. All of it is hashed.
    std::string pack = "PACK" + std::string(1996, 'q');
    for (auto [capabilities, expected] : std::vector<std::pair<Capabilities, std::string>>{
             {{Capability::sideBand},
              "03e8\x01" + pack.substr(0, 995) + "03e8\x01" + pack.substr(995, 995) + "000f\x01" +
                  pack.substr(1990) + "000a\x02" + "done\n"},
             {{Capability::sideBand64k, Capability::quiet}, "07d5\x01" + pack},
             {{}, pack}}) {
        SocketPair each;
        each.socket->setCapabilities(capabilities);
        each.socket->writeSideBandData(asBytes(pack));
        each.socket->drainPackBuffer();
        each.socket->writeProgress("done\n");
        each.endWrites();
        EXPECT_EQ(each.peerReadAll(), expected);
        EXPECT_EQ(each.socket->packHash().finish(), sha1(asBytes(pack)));
    }
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
