#include "storage/object_writer.h"

#include <gtest/gtest.h>

#include <fstream>

#include "storage/cloud_fixture.h"
#include "support/error_message.h"
#include "support/process.h"

namespace corvane {
namespace {

Object numbered(int i, std::size_t size) {
    std::string text = "object " + std::to_string(i) + " ";
    text.resize(size, static_cast<char>('a' + i % 26));
    return Object(ObjectType::blob, toBytes(text));
}

struct ObjectWriterLayouts : testing::StoreFixture,
                             ::testing::WithParamInterface<ObjectWriter::Layout> {};

INSTANTIATE_TEST_SUITE_P(Layouts, ObjectWriterLayouts,
                         ::testing::Values(ObjectWriter::Layout::looseFiles,
                                           ObjectWriter::Layout::packed));

TEST_P(ObjectWriterLayouts, EveryObjectIsReachableUntilItsFileIsWritten) {
    std::vector<Object> objects;
    {
        // A limit below one object: each waits for the one before, and none is stuck.
        ObjectWriter writer(store, 2, 1000, GetParam());
        for (int i = 0; i < 300; ++i) {
            objects.push_back(numbered(i, i == 150 ? 5000 : 700));
            writer.put(std::make_shared<const Object>(objects.back()));
            // Queued or written, never lost in between.
            const auto& id = objects.back().id();
            auto pending = writer.find(id);
            EXPECT_TRUE(pending ? *pending == objects.back() : store.hasObject(id)) << i;
        }
        writer.put(std::make_shared<const Object>(objects.front()));  // a repeat
        writer.finish();
    }
    Store later(dir.path() + "/Objects", timing);
    for (const auto& object : objects)
        EXPECT_EQ(later.getObject(object.id()), object);

    // A writer that goes without finishing leaves nothing of a pack behind.
    Object dropped = numbered(1000, 100);
    {
        ObjectWriter writer(later, 2, 1000, GetParam());
        writer.put(std::make_shared<const Object>(dropped));
    }
    bool packed = GetParam() == ObjectWriter::Layout::packed;
    EXPECT_EQ(later.hasObject(dropped.id()), !packed);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() + "/Objects/packs"), {}),
              packed ? 2 : 0);
}

using ObjectWriterTest = testing::StoreFixture;

TEST_F(ObjectWriterTest, AFailedWriteFailsTheNextPutAndFinish) {
    std::string root = dir.path() + "/Objects";
    // The cache folder became a file: no object can be written.
    std::filesystem::remove_all(root);
    std::ofstream(root) << "not a folder";
    ObjectWriter writer(store, 2, 1 << 20);
    writer.put(std::make_shared<const Object>(numbered(1, 10)));
    auto message = testing::errorMessage([&] {
        for (int i = 2; i < 1000; ++i)
            writer.put(std::make_shared<const Object>(numbered(i, 10)));
        writer.finish();
    });
    EXPECT_NE(message.find("Not a directory"), std::string::npos) << message;
}

}  // namespace
}  // namespace corvane
