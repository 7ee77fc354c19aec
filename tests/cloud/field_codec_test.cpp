#include "cloud/field_codec.h"

#include <gtest/gtest.h>

#include "base/error.h"

namespace corvane::cloud {
namespace {

const ZoneId kZone{"zone", std::string(kCurrentUserDefaultName)};
const std::string kHashA(64, 'a');
const std::string kHashB = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

// Assets travel as their content: the test names files after the hash they stand for.
StoredAsset lookup(const Asset& asset) {
    auto name = asset.fileURL->filename().string();
    return StoredAsset{name, name == kHashA ? 3u : 70000u};
}

Asset place(const StoredAsset& stored) {
    return Asset{"/cache/" + stored.hash};
}

Fields sample() {
    Fields fields;
    fields["name"] = std::string("tools");
    fields["version"] = std::int64_t{-2};
    fields["meta"] = Asset{"/files/" + kHashA};
    fields["ids"] = std::vector<std::string>{"abc", "", "abd"};
    fields["objects"] = std::vector<Asset>{Asset{"/x/" + kHashB}, Asset{"/y/" + kHashA}};
    fields["link"] = Reference{RecordId{"REPOSITORY", kZone}, ReferenceAction::deleteSelf};
    fields["empty"] = std::vector<Asset>{};
    return fields;
}

TEST(FieldCodec, RoundTripsEveryKind) {
    auto bytes = encodeFields(sample(), lookup);
    auto decoded = decodeFields(bytes, kZone, place);
    ASSERT_EQ(decoded.size(), 7u);
    EXPECT_EQ(std::get<std::string>(decoded["name"]), "tools");
    EXPECT_EQ(std::get<std::int64_t>(decoded["version"]), -2);
    EXPECT_EQ(std::get<Asset>(decoded["meta"]).fileURL, "/cache/" + kHashA);
    EXPECT_EQ(std::get<std::vector<std::string>>(decoded["ids"]),
              (std::vector<std::string>{"abc", "", "abd"}));
    auto objects = std::get<std::vector<Asset>>(decoded["objects"]);
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[0].fileURL, "/cache/" + kHashB);
    EXPECT_EQ(std::get<Reference>(decoded["link"]),
              (Reference{RecordId{"REPOSITORY", kZone}, ReferenceAction::deleteSelf}));
    EXPECT_TRUE(std::get<std::vector<Asset>>(decoded["empty"]).empty());
}

TEST(FieldCodec, KeepsSizesOfAssets) {
    std::vector<StoredAsset> seen;
    auto bytes = encodeFields(sample(), lookup);
    decodeFields(bytes, kZone, [&](const StoredAsset& stored) {
        seen.push_back(stored);
        return Asset{};
    });
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[1].hash, kHashB);
    EXPECT_EQ(seen[1].size, 70000u);
    EXPECT_EQ(seen[2].size, 3u);
}

TEST(FieldCodec, EveryTruncationIsAnError) {
    auto bytes = encodeFields(sample(), lookup);
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        ByteView prefix(bytes.data(), length);
        EXPECT_THROW(decodeFields(prefix, kZone, place), Error) << "length " << length;
    }
}

TEST(FieldCodec, RejectsTrailingBytesUnknownKindsAndFormats) {
    auto bytes = encodeFields(sample(), lookup);
    auto longer = bytes;
    longer.push_back(0);
    EXPECT_THROW(decodeFields(longer, kZone, place), Error);

    auto otherFormat = bytes;
    otherFormat[0] = 9;
    EXPECT_THROW(decodeFields(otherFormat, kZone, place), Error);

    Fields one;
    one["k"] = std::string("v");
    auto single = encodeFields(one, lookup);
    single[1 + 4 + 4 + 1] = 42;  // the kind byte after format, count and the key "k"
    EXPECT_THROW(decodeFields(single, kZone, place), Error);
}

TEST(FieldCodec, HugeCountsFailWithoutAllocating) {
    // format 1, one field "k", kind 5 (asset list) claiming 4 billion entries.
    Bytes bytes{1, 1, 0, 0, 0, 1, 0, 0, 0, 'k', 5, 0xff, 0xff, 0xff, 0xff};
    EXPECT_THROW(decodeFields(bytes, kZone, place), Error);
    Bytes fields{1, 0xff, 0xff, 0xff, 0xff};
    EXPECT_THROW(decodeFields(fields, kZone, place), Error);
}

}  // namespace
}  // namespace corvane::cloud
