// Stored packs: objects laid out with their deltas, read back through the index, and every kind of
// damage refused with a clear error rather than a wrong object.
#include "storage/stored_pack.h"

#include <gtest/gtest.h>

#include "base/error.h"
#include "objects/zlib.h"
#include "storage/file_io.h"
#include "support/deltas.h"
#include "support/error_message.h"
#include "support/process.h"

namespace corvane {
namespace {

using testing::addDelta;
using testing::addWhole;

Digest digestOf(const Object& object) {
    return digestOfId(object.id());
}

Object blob(const std::string& text) {
    return Object(ObjectType::blob, toBytes(text));
}

struct StoredPackTest : ::testing::Test {
    std::string lines(int count, const std::string& last) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += "line " + std::to_string(i) + " of a file that changes a little\n";
        return text + last;
    }
    Object first = blob(lines(40, "one\n"));
    Object second = blob(lines(40, "two\n"));
    Object third = blob(lines(40, "three\n"));
    Object outside = blob(lines(30, "elsewhere\n"));
    Object fourth = blob(lines(30, "four\n"));

    // first whole; second on first and third on second (ofs-deltas); fourth on an object of
    // another pack (a ref-delta).
    StoredPackBuilder::Built build() {
        StoredPackBuilder builder;
        addWhole(builder, first);
        addDelta(builder, second, first);
        addDelta(builder, third, second);
        addDelta(builder, fourth, outside);
        EXPECT_TRUE(builder.contains(digestOf(third)));
        EXPECT_FALSE(builder.contains(digestOf(outside)));
        return builder.finish();
    }
    Object fromOutside(const std::string& id) {
        if (id != outside.id()) throw Error("Object " + id + " is not here");
        return outside;
    }
};

TEST_F(StoredPackTest, ObjectsComeBackThroughTheirDeltaChainsAndTheIndexNamesEachPlace) {
    auto built = build();
    EXPECT_EQ(built.name, "P" + hexString(sha1(built.data)));
    StoredPackIndex index(built.index);
    ASSERT_EQ(index.count(), 4u);
    EXPECT_EQ(index.dataSize(), built.data.size());
    EXPECT_EQ(index.dataHash(), sha1(built.data));
    for (std::size_t i = 1; i < index.count(); ++i)
        EXPECT_LT(index.at(i - 1).id, index.at(i).id);

    auto entry = [&](const Object& object) { return *index.find(digestOf(object)); };
    EXPECT_EQ(entry(first).kind, StoredEntryKind::whole);
    EXPECT_FALSE(entry(first).base);
    EXPECT_EQ(entry(third).kind, StoredEntryKind::ofsDelta);
    EXPECT_EQ(entry(third).base, digestOf(second));
    EXPECT_EQ(entry(fourth).kind, StoredEntryKind::refDelta);
    EXPECT_EQ(entry(fourth).base, digestOf(outside));
    EXPECT_FALSE(index.find(digestOf(outside)));
    // Each entry is git's own: the header of a whole object, of an ofs-delta pointing back to its
    // base's entry, of a ref-delta naming its base.
    auto bytesOf = [&](const StoredPackEntry& stored) {
        return entriesOf(built.name, built.data)(stored);
    };
    Bytes firstBytes = bytesOf(entry(first));
    auto view = viewEntry(firstBytes, entry(first));
    EXPECT_EQ(view.typeCode, 3);
    EXPECT_EQ(view.size, first.data().size());
    EXPECT_EQ(zlibInflate(view.stream), first.data());
    EXPECT_EQ(viewEntry(bytesOf(entry(second)), entry(second)).typeCode, 6);
    EXPECT_EQ(viewEntry(bytesOf(entry(fourth)), entry(fourth)).typeCode, 7);

    for (const auto* object : {&first, &second, &third, &fourth}) {
        auto read = readStoredObject(built.name, index, entriesOf(built.name, built.data),
                                     digestOf(*object),
                                     [&](const std::string& id) { return fromOutside(id); });
        EXPECT_EQ(read, *object);
    }
    EXPECT_EQ(testing::errorMessage([&] {
                  readStoredObject(built.name, index, entriesOf(built.name, built.data),
                                   digestOf(outside),
                                   [&](const std::string& id) { return fromOutside(id); });
              }),
              "Corrupted pack " + built.name + ": it does not hold " + outside.id());
    // An outside base that cannot be had fails with its own error.
    EXPECT_EQ(testing::errorMessage([&] {
                  readStoredObject(built.name, index, entriesOf(built.name, built.data),
                                   digestOf(fourth), [](const std::string& id) -> Object {
                                       throw Error("Object " + id + " is not here");
                                   });
              }),
              "Object " + outside.id() + " is not here");
}

TEST_F(StoredPackTest, ABuilderWritingToFilesMakesTheSamePacksAndLeavesNoFileBehind) {
    auto inMemory = build();
    testing::TempDir folder;
    int files = 0;
    auto newFile = [&] { return folder.path() + "/data" + std::to_string(++files); };
    std::vector<StoredPackBuilder::Built> made;
    {
        StoredPackBuilder builder(newFile);
        for (int pack = 0; pack < 2; ++pack) {
            addWhole(builder, first);
            addDelta(builder, second, first);
            addDelta(builder, third, second);
            addDelta(builder, fourth, outside);
            // Bases are read back from the file as it is written.
            EXPECT_EQ(builder.read(digestOf(third),
                                   [&](const std::string& id) { return fromOutside(id); }),
                      third);
            made.push_back(builder.finish());
        }
        addWhole(builder, fourth);  // a third pack, never finished
        EXPECT_TRUE(std::filesystem::exists(folder.path() + "/data3"));
    }
    EXPECT_FALSE(std::filesystem::exists(folder.path() + "/data3"));
    for (const auto& built : made) {
        EXPECT_EQ(built.name, inMemory.name);
        EXPECT_EQ(built.index, inMemory.index);
        EXPECT_TRUE(built.data.empty());
        EXPECT_EQ(readFile(built.dataFile), inMemory.data);
    }
    EXPECT_NE(made[0].dataFile, made[1].dataFile);
}

TEST_F(StoredPackTest, DamagedIndexesDataAndLoopingChainsAreRefused) {
    auto built = build();
    auto indexError = [](Bytes bytes) {
        return testing::errorMessage([&] { StoredPackIndex index(std::move(bytes)); });
    };
    EXPECT_EQ(indexError({}), "Corrupted pack index: not a pack index");
    auto shortened = built.index;
    shortened.pop_back();
    EXPECT_EQ(indexError(shortened), "Corrupted pack index: its length does not match its counts");
    auto newer = built.index;
    newer[7] = 2;
    EXPECT_EQ(indexError(newer), "Corrupted pack index: version 2");
    // The first entry starts at byte 44: id, offset, length, CRC-32, kind, base.
    auto swapped = built.index;
    std::swap_ranges(swapped.begin() + 44, swapped.begin() + 44 + 37, swapped.begin() + 44 + 37);
    EXPECT_EQ(indexError(swapped), "Corrupted pack index: ids out of order");
    auto beyond = built.index;
    beyond[44 + 24] = 0x7f;  // a length past the data
    EXPECT_EQ(indexError(beyond), "Corrupted pack index: entry out of bounds");
    auto kind = built.index;
    kind[44 + 32] = 5;
    EXPECT_EQ(indexError(kind), "Corrupted pack index: unknown kind 5");

    StoredPackIndex index(built.index);
    auto read = [&](const Bytes& data, const Object& object) {
        return testing::errorMessage([&] {
            readStoredObject(built.name, index, entriesOf(built.name, data), digestOf(object),
                             [&](const std::string& id) { return fromOutside(id); });
        });
    };
    const std::string prefix = "Corrupted pack " + built.name + ": ";
    // A data cut short, or altered inside a zlib stream or a delta: a clear error, never a wrong
    // object.
    Bytes cut(built.data.begin(), built.data.end() - 10);
    EXPECT_TRUE(read(cut, fourth).starts_with(prefix)) << read(cut, fourth);
    for (std::size_t at = 0; at < built.data.size(); at += 7) {
        Bytes altered = built.data;
        altered[at] ^= 0x20;
        for (const auto* object : {&first, &third, &fourth}) {
            // Untouched by the change, the object comes back as it was; touched, it fails.
            auto message = read(altered, *object);
            EXPECT_TRUE(message == "no error" || message.starts_with(prefix))
                << at << ": " << message;
        }
    }
    // A base from outside that is not the object its id names.
    EXPECT_EQ(testing::errorMessage([&] {
                  readStoredObject(built.name, index, entriesOf(built.name, built.data),
                                   digestOf(fourth), [&](const std::string&) { return first; });
              }),
              prefix + "Invalid ref_delta");

    // Deltas that name each other as bases: nothing ever rebuilds.
    StoredPackBuilder looping;
    addDelta(looping, second, third);
    addDelta(looping, third, second);
    auto loop = looping.finish();
    StoredPackIndex loopIndex(loop.index);
    EXPECT_EQ(testing::errorMessage([&] {
                  readStoredObject(
                      loop.name, loopIndex, entriesOf(loop.name, loop.data), digestOf(second),
                      [](const std::string& id) -> Object { throw Error("no " + id); });
              }),
              "Corrupted pack " + loop.name + ": the delta chain of " + second.id() +
                  " loops or runs too deep");
}

}  // namespace
}  // namespace corvane
