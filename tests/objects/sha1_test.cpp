#include "objects/sha1.h"

#include <gtest/gtest.h>

#include "support/process.h"

namespace corvane {
namespace {

TEST(ObjectId, RecognisesOnlyFortyLowercaseHexDigits) {
    EXPECT_TRUE(isObjectId(std::string(40, '0')));
    EXPECT_TRUE(isObjectId("0123456789abcdef0123456789abcdef01234567"));
    EXPECT_FALSE(isObjectId(std::string(39, 'a')));
    EXPECT_FALSE(isObjectId(std::string(41, 'a')));
    EXPECT_FALSE(isObjectId("0123456789ABCDEF0123456789abcdef01234567"));
    EXPECT_FALSE(isObjectId("0123456789abcdef0123456789abcdef0123456g"));
    EXPECT_FALSE(isObjectId("0123456789abcdef 123456789abcdef01234567"));
    EXPECT_FALSE(isObjectId(""));
    const std::uint8_t bytes[] = {0x00, 0x0f, 0xa0, 0xff};
    EXPECT_EQ(hexString(bytes), "000fa0ff");
    EXPECT_EQ(hexString({}), "");
}

TEST(ObjectId, EqualsWhatGitComputes) {
    testing::TempDir dir;
    auto git = [&](const std::string& script) {
        auto result = testing::runShell(
            script, {{"GIT_CONFIG_NOSYSTEM", "1"}, {"GIT_CONFIG_GLOBAL", "/dev/null"}}, dir.path());
        EXPECT_EQ(result.status, 0) << result.out;
        return result.out.substr(0, 40);
    };
    EXPECT_EQ(objectId(ObjectType::blob, asBytes("hello\n")),
              git("printf 'hello\\n' | git hash-object --stdin"));
    EXPECT_EQ(objectId(ObjectType::blob, {}), git("git hash-object --stdin < /dev/null"));

    git("git init -q . && printf 'hello\\n' > a && git add a");
    std::string treeId = git("git write-tree");
    std::string blobId = objectId(ObjectType::blob, asBytes("hello\n"));
    Bytes tree = toBytes("100644 a");
    tree.push_back(0);
    for (std::size_t i = 0; i < 40; i += 2) {
        tree.push_back(static_cast<std::uint8_t>(std::stoi(blobId.substr(i, 2), nullptr, 16)));
    }
    EXPECT_EQ(objectId(ObjectType::tree, tree), treeId);

    std::string commit = "tree " + treeId +
                         "\nauthor A <a@b> 1500000000 +0200\ncommitter A <a@b> 1500000000 "
                         "+0200\n\nmessage\n";
    EXPECT_EQ(objectId(ObjectType::commit, asBytes(commit)),
              git("printf '" + commit + "' | git hash-object -t commit --stdin"));
}

TEST(SHA1Context, PiecesGiveTheDigestOfTheWhole) {
    Bytes data(3 * 1024 * 1024 + 17);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 31 + 7);
    SHA1Context pieces;
    std::size_t offset = 0;
    for (std::size_t step = 0; offset < data.size(); ++step) {
        std::size_t length = std::min(data.size() - offset, (step * 977) % 70000);
        pieces.update(ByteView(data).subspan(offset, length));  // includes empty pieces
        offset += length;
    }
    SHA1Context copy = pieces;  // a copy carries the state
    EXPECT_EQ(pieces.finish(), sha1(data));
    EXPECT_EQ(copy.finish(), sha1(data));
    EXPECT_EQ(hexString(sha1({})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

}  // namespace
}  // namespace corvane
