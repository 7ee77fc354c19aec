#include "storage/stored_records.h"

#include <gtest/gtest.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "objects/lzfse_compression.h"
#include "storage/cloud_fixture.h"
#include "storage/file_io.h"
#include "storage/incremental_meta.h"
#include "storage/repository_meta.h"
#include "support/error_message.h"
#include "support/process.h"

namespace corvane {
namespace {

struct StoredRecords : testing::StoreFixture {
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
    content.commits.add(std::string(40, 'c'), {std::string(40, 't'), {}});
    Bytes document = encodeRepositoryMeta(content);
    auto record = repositoryRecord();
    record.set("meta", file(document));
    record.set("version", std::int64_t{2});
    auto loaded = decodeRepositoryRecord(record, shareRecord());
    EXPECT_EQ(*loaded->content(), content);
    EXPECT_EQ(loaded->metaSize(), static_cast<std::int64_t>(document.size()));
    EXPECT_EQ(loaded->state().head, "ref: refs/heads/main");

    record.set("version", std::int64_t{5});
    EXPECT_EQ(testing::errorMessage([&] { decodeRepositoryRecord(record, shareRecord()); }),
              "Unsupported repository version. Try updating Corvane.");
    auto noMeta = repositoryRecord();
    noMeta.set("version", std::int64_t{5});  // not looked at without a document
    EXPECT_NO_THROW(decodeRepositoryRecord(noMeta, shareRecord()));
    auto nameless = repositoryRecord();
    nameless.remove("name");
    EXPECT_EQ(testing::errorMessage([&] { decodeRepositoryRecord(nameless, shareRecord()); }),
              "Corrupted repository record: missing name");
}

TEST_F(StoredRecords, VersionThreeWritesWhatEachPushChangedAndReadsBackEveryState) {
    auto hexId = [](int number) {
        char text[41];
        std::snprintf(text, sizeof text, "%040x", number);
        return std::string(text);
    };
    RepositoryContent state;
    for (int i = 0; i < 1000; ++i)
        state.commits.add(hexId(i), {hexId(1 << 20 | i), {hexId(i - 1)}});
    state.refs["refs/heads/main"] = hexId(999);
    state.freeze();

    auto record = repositoryRecord();
    std::shared_ptr<Repository> known;
    std::size_t threshold = SIZE_MAX, partBytes = SIZE_MAX, written = 0;
    DocumentWriter write = [&](const Bytes& document) {
        written += document.size();
        return file(document);
    };
    int saves = 0;
    auto push = [&](RepositoryContent after) {
        auto plan = planMetaSave(record, state, after, write, threshold, partBytes);
        if (!plan.base.empty()) {
            record.set("meta", plan.base.front());
            record.set("parts", std::vector<cloud::Asset>(plan.base.begin() + 1, plan.base.end()));
        }
        auto increments = plan.keptIncrements;
        if (plan.increment) increments.push_back(*plan.increment);
        record.set("increments", increments);
        record.set("version", std::int64_t{plan.version});
        // A reader that knew the state before sees the push, and so does one from nothing.
        auto extended = decodeRepositoryRecord(record, shareRecord(), known.get());
        EXPECT_EQ(*extended->content(), after);
        EXPECT_EQ(extended->metaSize(), plan.size);
        if (++saves % 16 == 0) {
            auto fresh = decodeRepositoryRecord(record, shareRecord());
            EXPECT_EQ(*fresh->content(), after);
        }
        known = extended;
        after.freeze();
        state = std::move(after);
        return plan;
    };

    // Under the threshold a save is the whole version-2 document; past it, the state becomes the
    // base of version 3, written in parts of a few kilobytes here.
    EXPECT_EQ(push(state).version, 2);
    threshold = 1000;
    partBytes = 4096;
    auto converted = push(state);
    ASSERT_EQ(converted.version, 3);
    ASSERT_GT(converted.base.size(), 5u);
    const auto baseSize = static_cast<std::size_t>(converted.size);

    written = 0;
    std::size_t baseWrites = 0, mostIncrements = 0;
    for (int i = 1000; i < 1600; ++i) {
        RepositoryContent after = state;
        after.commits.add(hexId(i), {hexId(1 << 20 | i), {hexId(i - 1)}});
        after.refs["refs/heads/main"] = hexId(i);
        after.packs[hexId(i).substr(37)] = i;
        if (i % 7 == 0) after.refs["refs/heads/topic" + std::to_string(i % 3)] = hexId(i);
        if (i % 11 == 0) after.refs.erase("refs/heads/topic" + std::to_string(i % 3));
        auto plan = push(after);
        ASSERT_EQ(plan.version, 3);
        baseWrites += plan.base.empty() ? 0 : 1;
        mostIncrements = std::max(mostIncrements, plan.keptIncrements.size() + 1);
    }
    // 600 pushes rewrote the base now and then and kept few increments; in all they wrote a
    // tenth of what a whole document each time would be (600 bases at least).
    EXPECT_GE(baseWrites, 1u);
    EXPECT_LE(mostIncrements, 10u);
    EXPECT_LT(written, 60 * baseSize);
}

TEST_F(StoredRecords, PackRecordsOfBothVersions) {
    testing::TempDir other;
    Store source(other.path(), timing);
    Object one(ObjectType::blob, toBytes("one"));
    Object two(ObjectType::blob, toBytes("two"));
    source.putObject(one);
    source.putObject(two);

    // Version 2: one cache file per id.
    auto made = mergePackRecord("abc", std::nullopt, {one.id(), two.id()}, zone, source);
    auto v2 = made.record;
    EXPECT_EQ(made.size,
              static_cast<std::int64_t>(std::filesystem::file_size(source.objectPath(one.id())) +
                                        std::filesystem::file_size(source.objectPath(two.id()))));
    EXPECT_EQ(*v2.get<std::int64_t>("size"), made.size);
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

TEST_F(StoredRecords, MergedPackRecordsKeepEverythingStored) {
    Object one(ObjectType::blob, toBytes("one"));
    Object two(ObjectType::blob, toBytes("two"));
    Object three(ObjectType::blob, toBytes("three"));
    for (const auto* object : {&one, &two, &three})
        store.putObject(*object);
    // What another push stored: one and two, as files of the store's own.
    cloud::Record stored(kPackRecordType, {"abc", zone});
    stored.recordChangeTag = "tag1";
    stored.set("version", std::int64_t{2});
    auto oneFile = file(readFile(store.objectPath(one.id())));
    auto twoFile = file(readFile(store.objectPath(two.id())));
    stored.set("ids", std::vector<std::string>{one.id(), two.id()});
    stored.set("objects", std::vector<cloud::Asset>{oneFile, twoFile});

    // This push knows two, three, one written into a cache pack, and one it cannot find.
    Object packed(ObjectType::blob, toBytes("packed"));
    auto pack = store.beginPack();
    store.putObject(packed, *pack);
    store.commitPack(pack);
    std::string lost(40, 'a');
    auto merged =
        mergePackRecord("abc", stored, {two.id(), three.id(), packed.id(), lost}, zone, store);
    EXPECT_TRUE(merged.needsSave);
    EXPECT_EQ(merged.record.recordChangeTag, "tag1");  // saved only over what was read
    EXPECT_EQ(merged.missing, std::vector<std::string>{lost});
    std::map<std::string, cloud::Asset> byId;
    auto ids = *merged.record.get<std::vector<std::string>>("ids");
    auto objects = *merged.record.get<std::vector<cloud::Asset>>("objects");
    ASSERT_EQ(ids.size(), objects.size());
    for (std::size_t i = 0; i < ids.size(); ++i)
        byId.emplace(ids[i], objects[i]);
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
    EXPECT_EQ(byId.size(), 4u);
    EXPECT_EQ(byId[one.id()], oneFile);  // stored files stay as they are
    EXPECT_EQ(byId[two.id()], twoFile);
    EXPECT_EQ(byId[three.id()], cloud::Asset{store.objectPath(three.id())});
    auto packedSize = std::filesystem::file_size(pack->path());
    EXPECT_EQ(byId[packed.id()], (cloud::Asset{pack->path(), cloud::ByteRange{0, packedSize}}));
    std::uintmax_t total = packedSize;
    for (const auto* object : {&one, &two, &three})
        total += std::filesystem::file_size(store.objectPath(object->id()));
    EXPECT_EQ(merged.size, static_cast<std::int64_t>(total));

    // Nothing new: nothing to save. A newer format or a broken record is never written over.
    EXPECT_FALSE(mergePackRecord("abc", merged.record, {one.id()}, zone, store).needsSave);
    stored.set("version", std::int64_t{3});
    EXPECT_EQ(testing::errorMessage([&] { mergePackRecord("abc", stored, {}, zone, store); }),
              "Unsupported pack version 3. Try updating Corvane.");
    stored.set("version", std::int64_t{2});
    stored.set("ids", std::vector<std::string>{one.id()});
    EXPECT_EQ(testing::errorMessage([&] { mergePackRecord("abc", stored, {}, zone, store); }),
              "Received corrupted pack");

    // A version-1 record's objects are written out again as cache files.
    Object four(ObjectType::blob, toBytes("four"));
    std::string index = R"({")" + four.id() + R"(": {"type": 3, "size": 4, "offset": 0}})";
    cloud::Record v1(kPackRecordType, {"abc", zone});
    v1.set("index", file(lzfseCompress(asBytes(index))));
    v1.set("data", file(lzfseCompress(asBytes("four"))));
    auto upgraded = mergePackRecord("abc", v1, {one.id()}, zone, store);
    auto upgradedIds = *upgraded.record.get<std::vector<std::string>>("ids");
    EXPECT_EQ(std::set<std::string>(upgradedIds.begin(), upgradedIds.end()),
              (std::set<std::string>{one.id(), four.id()}));
    EXPECT_FALSE(upgraded.record.get<cloud::Asset>("index"));
    EXPECT_EQ(store.getObject(four.id()), four);
}

TEST_F(StoredRecords, PackContentsGroupByPrefix) {
    RepositoryContent content;
    std::string ab10 = "ab10" + std::string(36, '0'), ab19 = "ab19" + std::string(36, '0');
    std::string ab2 = "ab2" + std::string(37, '0');
    content.blobs.add(ab19, 1);
    content.commits.add(ab10, {});
    content.trees.add(ab2, {});
    auto packs = packContents(content, {"ab1", "ab2", "fff"});
    EXPECT_EQ(packs["ab1"], (std::vector<std::string>{ab10, ab19}));
    EXPECT_EQ(packs["ab2"], std::vector<std::string>{ab2});
    EXPECT_EQ(packs["fff"], std::vector<std::string>{});
}

}  // namespace
}  // namespace corvane
