#include "objects/sha1.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(ObjectId, RecognisesOnlyFortyLowercaseHexDigits) {
    const std::string id = "0123456789abcdef0123456789abcdef01234567";
    // The check alone and the check that decodes agree on every case.
    auto both = [](const std::string& text) {
        bool parsed = parseObjectId(text).has_value();
        EXPECT_EQ(parsed, isObjectId(text)) << text;
        return parsed;
    };
    EXPECT_TRUE(both(std::string(40, '0')));
    EXPECT_TRUE(both(id));
    EXPECT_FALSE(both(std::string(39, 'a')));
    EXPECT_FALSE(both(std::string(41, 'a')));
    EXPECT_FALSE(both("0123456789ABCDEF0123456789abcdef01234567"));
    EXPECT_FALSE(both("0123456789abcdef0123456789abcdef0123456g"));
    EXPECT_FALSE(both("0123456789abcdef 123456789abcdef01234567"));
    EXPECT_FALSE(both("0123456789abcdef0123456789abcdef0123456\xff"));
    EXPECT_FALSE(both(""));
    EXPECT_EQ(parseObjectId(id), digestOfId(id));
    const std::uint8_t bytes[] = {0x00, 0x0f, 0xa0, 0xff};
    EXPECT_EQ(hexString(bytes), "000fa0ff");
    EXPECT_EQ(hexString({}), "");
    EXPECT_EQ(hexString(digestOfId(id)), id);
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
