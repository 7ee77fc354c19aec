#include "storage/stored_records.h"

#include <gtest/gtest.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "objects/lzfse_compression.h"
#include "storage/file_io.h"
#include "storage/repository_meta.h"
#include "support/error_message.h"
#include "support/process.h"

namespace corvane {
namespace {

struct StoredRecords : ::testing::Test {
    testing::TempDir dir;
    Store::Timing timing{.runExpiryThread = false};
    Store store{dir.path() + "/Objects", timing};
    cloud::ZoneId zone{std::string(40, '9'), "__defaultOwner__"};
    int files = 0;

    cloud::Asset file(ByteView bytes) {
        std::string path = dir.path() + "/asset" + std::to_string(files++);
        writeFileAtomically(path, bytes);
        return {path};
    }
    cloud::Record repositoryRecord() {
        cloud::Record record(kRepositoryRecordType, {kRepositoryRecordName, zone});
        record.set("name", std::string("tools"));
        return record;
    }
    cloud::Record shareRecord() { return cloud::makeShare(repositoryRecord(), kShareRecordName); }
};

TEST_F(StoredRecords, RepositoryRecordsDecodeByVersion) {
    auto empty = decodeRepositoryRecord(repositoryRecord(), shareRecord());
    EXPECT_EQ(empty->name(), "tools");
    EXPECT_EQ(empty->id(), zone.zoneName);
    EXPECT_EQ(empty->metaSize(), 0);
    EXPECT_EQ(empty->state().head, "ref: refs/heads/master");

    RepositoryContent content;
    content.refs["refs/heads/main"] = std::string(40, 'c');
    content.commits[std::string(40, 'c')] = {std::string(40, 't'), {}};
    Bytes document = encodeRepositoryMeta(content);
    auto record = repositoryRecord();
    record.set("meta", file(document));
    record.set("version", std::int64_t{2});
    auto loaded = decodeRepositoryRecord(record, shareRecord());
    EXPECT_EQ(*loaded->content(), content);
    EXPECT_EQ(loaded->metaSize(), static_cast<std::int64_t>(document.size()));
    EXPECT_EQ(loaded->state().head, "ref: refs/heads/main");

    record.set("version", std::int64_t{3});
    EXPECT_EQ(testing::errorMessage([&] { decodeRepositoryRecord(record, shareRecord()); }),
              "Unsupported repository version. Try updating Corvane.");
    auto noMeta = repositoryRecord();
    noMeta.set("version", std::int64_t{3});  // not looked at without a document
    EXPECT_NO_THROW(decodeRepositoryRecord(noMeta, shareRecord()));
    auto nameless = repositoryRecord();
    nameless.remove("name");
    EXPECT_EQ(testing::errorMessage([&] { decodeRepositoryRecord(nameless, shareRecord()); }),
              "Corrupted repository record: missing name");
}

TEST_F(StoredRecords, PackRecordsOfBothVersions) {
    testing::TempDir other;
    Store source(other.path(), timing);
    Object one(ObjectType::blob, toBytes("one"));
    Object two(ObjectType::blob, toBytes("two"));
    source.putObject(one);
    source.putObject(two);

    // Version 2: one cache file per id.
    std::int64_t size = 0;
    auto v2 = buildPackRecord("abc", {one.id(), two.id()}, zone, source, size);
    EXPECT_EQ(size,
              static_cast<std::int64_t>(std::filesystem::file_size(source.objectPath(one.id())) +
                                        std::filesystem::file_size(source.objectPath(two.id()))));
    EXPECT_EQ(*v2.get<std::int64_t>("size"), size);
    EXPECT_EQ(v2.parent->recordId.recordName, "REPOSITORY");
    EXPECT_EQ(decodePackRecord(v2, store), (std::set<std::string>{one.id(), two.id()}));
    EXPECT_EQ(store.getObject(two.id()), two);

    // Version 1: an LZFSE JSON index into an LZFSE blob of contents.
    Object three(ObjectType::blob, toBytes("three!"));
    Object tree(ObjectType::tree, {});
    std::string index = R"({")" + three.id() + R"(": {"type": 3, "size": 6, "offset": 0}, ")" +
                        tree.id() + R"(": {"type": 2, "size": 0, "offset": 6}})";
    cloud::Record v1(kPackRecordType, {"xyz", zone});
    v1.set("index", file(lzfseCompress(asBytes(index))));
    v1.set("data", file(lzfseCompress(asBytes("three!"))));
    EXPECT_EQ(decodePackRecord(v1, store), (std::set<std::string>{three.id(), tree.id()}));
    EXPECT_EQ(store.getObject(three.id()), three);

    // A version-2 record that still carries version-1 fields yields both.
    v2.set("index", *v1.get<cloud::Asset>("index"));
    v2.set("data", *v1.get<cloud::Asset>("data"));
    EXPECT_EQ(decodePackRecord(v2, store).size(), 4u);

    v2.set("version", std::int64_t{7});
    EXPECT_EQ(testing::errorMessage([&] { decodePackRecord(v2, store); }),
              "Unsupported pack version 7. Try updating Corvane.");
    v2.set("version", std::int64_t{2});
    v2.set("ids", std::vector<std::string>{one.id(), two.id(), three.id()});
    EXPECT_EQ(testing::errorMessage([&] { decodePackRecord(v2, store); }),
              "Received corrupted pack");
    v1.remove("data");
    EXPECT_EQ(testing::errorMessage([&] { decodePackRecord(v1, store); }), "Corrupted pack xyz");
}

TEST_F(StoredRecords, PackContentsGroupByPrefix) {
    RepositoryContent content;
    std::string ab10 = "ab10" + std::string(36, '0'), ab19 = "ab19" + std::string(36, '0');
    std::string ab2 = "ab2" + std::string(37, '0');
    content.blobs[ab19] = 1;
    content.commits[ab10] = {};
    content.trees[ab2] = {};
    auto packs = packContents(content, {"ab1", "ab2", "fff"});
    EXPECT_EQ(packs["ab1"], (std::vector<std::string>{ab10, ab19}));
    EXPECT_EQ(packs["ab2"], std::vector<std::string>{ab2});
    EXPECT_EQ(packs["fff"], std::vector<std::string>{});
}

}  // namespace
}  // namespace corvane
