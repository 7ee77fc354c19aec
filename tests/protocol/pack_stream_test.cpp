#include <gtest/gtest.h>

#include <thread>

#include "objects/delta.h"
#include "objects/sha1.h"
#include "objects/zlib.h"
#include "protocol/git_socket.h"
#include "protocol/socket_pair.h"
#include "support/error_message.h"
#include "support/process.h"

namespace corvane {
namespace {

using testing::SocketPair;

std::string header(std::uint32_t version, std::uint32_t count) {
    std::string bytes = "PACK";
    for (auto value : {version, count}) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

std::string errorReading(const std::string& bytes, bool objectHeader) {
    SocketPair pair;
    pair.peerWrite(bytes);
    pair.closePeer();
    return testing::errorMessage([&] {
        if (!objectHeader) pair.socket->readPackHeader();
        auto [type, size] = pair.socket->readObjectHeader();
        pair.socket->inflateObject(size);
    });
}

TEST(PackStream, ReadsBackToBackObjectsAndRefusesBadHeadersAndStreams) {
    EXPECT_EQ(errorReading("PACX" + header(2, 1).substr(4), false), "Invalid pack signature");
    EXPECT_EQ(errorReading(header(3, 1), false), "Invalid pack version: 3");
    EXPECT_EQ(errorReading("\x50", true), "Invalid pack object header");  // type code 5
    EXPECT_EQ(errorReading(std::string(9, '\xff') + "\x01", true), "Invalid pack object header");
    Bytes compressed = zlibDeflate(Bytes(10, 'a'));
    auto data = asText(compressed);
    // The header says 12 bytes, the stream holds 10.
    EXPECT_EQ(errorReading(std::string("\x3c") + std::string(data), true),
              "Inflate error: truncated output");
    EXPECT_EQ(errorReading(std::string("\x38") + std::string(data), true),
              "Inflate error: object larger than its header");
    EXPECT_EQ(errorReading(std::string("\x3c") + std::string(data.substr(0, 4)), true), "EOF");
    EXPECT_EQ(errorReading("\x3c"
                           "garbage!",
                           true),
              "Inflate error: incorrect header check");
    EXPECT_EQ(errorReading("\xb0\x80\x80\x80\x80\x01", true),
              "Pack object too large: 4294967296 bytes");

    SocketPair pair;
    auto first = zlibDeflate(asBytes("first object"));
    auto second = zlibDeflate(Bytes(21, 'x'));
    // 0x95 0x01: a commit of 5 + (1 << 4) = 21 bytes.
    pair.peerWrite(header(2, 2) + "\x3c" + std::string(asText(first)) + "\x95\x01" +
                   std::string(asText(second)) + std::string(20, 't'));
    EXPECT_EQ(pair.socket->readPackHeader(), 2u);
    auto [type, size] = pair.socket->readObjectHeader();
    EXPECT_EQ(type, ObjectType::blob);
    EXPECT_EQ(asText(pair.socket->inflateObject(size)), "first object");
    auto [type2, size2] = pair.socket->readObjectHeader();
    EXPECT_EQ(type2, ObjectType::commit);
    EXPECT_EQ(size2, 21u);
    EXPECT_EQ(pair.socket->inflateObject(size2), Bytes(21, 'x'));
    EXPECT_EQ(pair.socket->readRawBytes(20), Bytes(20, 't'));
}

// A pack made by git with ref-deltas, sent over a socket: every object rebuilds with git's id.
// Each version adds a line in the middle too, so deltas copy from all over their bases.
TEST(PackStream, ReadsARealRefDeltaPackObjectByObject) {
    testing::TempDir dir;
    auto made = testing::runShell(
        "git init -q . && for i in $(seq 30); do seq 1 $((i * 200)) | sed \"$((i * 37))i +$i\" "
        "> file; git add file; "
        "git -c user.name=A -c user.email=a@b commit -qm v$i; done && "
        "git rev-list --objects --all | cut -d' ' -f1 > ids && "
        "git pack-objects -q --stdout --revs --all < /dev/null > pack && git rev-list --objects "
        "--all | wc -l",
        {{"GIT_CONFIG_NOSYSTEM", "1"}, {"GIT_CONFIG_GLOBAL", "/dev/null"}}, dir.path());
    ASSERT_EQ(made.status, 0) << made.out;
    auto pack = testing::runShell("cat pack", {}, dir.path()).out;
    auto ids = testing::runShell("sort ids", {}, dir.path()).out;

    SocketPair pair;
    std::thread writer([&] { pair.peerWrite(pack); });
    std::map<std::string, Object> objects;
    std::size_t deltas = 0;
    std::uint32_t count = pair.socket->readPackHeader();
    for (std::uint32_t i = 0; i < count; ++i) {
        auto [type, size] = pair.socket->readObjectHeader();
        ASSERT_NE(type, ObjectType::ofsDelta);  // git writes ref-deltas unless asked otherwise
        if (type == ObjectType::refDelta) {
            std::string base = hexString(pair.socket->readRawBytes(20));
            RefDelta delta{base, pair.socket->inflateObject(size)};
            ASSERT_TRUE(objects.contains(base));
            Object rebuilt = apply(objects.at(base), delta);
            objects.emplace(rebuilt.id(), rebuilt);
            ++deltas;
        } else {
            Object object(type, pair.socket->inflateObject(size));
            objects.emplace(object.id(), object);
        }
    }
    pair.socket->readRawBytes(20);
    writer.join();
    EXPECT_GT(deltas, 10u);
    std::string readIds;
    for (const auto& [id, object] : objects)
        readIds += id + "\n";
    EXPECT_EQ(readIds, ids);
}

}  // namespace
}  // namespace corvane
