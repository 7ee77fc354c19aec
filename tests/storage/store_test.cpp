#include "storage/store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "objects/sha1.h"
#include "objects/zlib.h"
#include "storage/cloud_fixture.h"
#include "storage/file_io.h"
#include "support/deltas.h"
#include "support/error_message.h"
#include "support/process.h"

namespace corvane {
namespace {

using StoreTest = testing::StoreFixture;

void ageFile(const std::filesystem::path& path, std::chrono::hours age) {
    auto then = std::chrono::system_clock::now() - age;
    timespec times[2];
    times[0].tv_sec = times[1].tv_sec = std::chrono::system_clock::to_time_t(then);
    times[0].tv_nsec = times[1].tv_nsec = 0;
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// Every file under `root` is its owner's alone: the cache's folder mode is not its only guard.
void expectPrivateFiles(const std::filesystem::path& root) {
    int files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file()) continue;
        struct stat status {};
        ASSERT_EQ(::stat(entry.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u) << entry.path();
        ++files;
    }
    EXPECT_GT(files, 0);
}

const char* kCommit =
    "tree 4b825dc642cb6eb9a060e54bf8d69288fbee4904\n"
    "author A <a@b> 1500000000 +0000\ncommitter A <a@b> 1500000000 +0000\n\nfirst\n";

TEST_F(StoreTest, WritesLooseObjectsAndReadsThemAndGitsBackVerified) {
    Object blob(ObjectType::blob, toBytes("hello\n"));
    Object empty(ObjectType::blob, {});
    Object commit(ObjectType::commit, toBytes(kCommit));
    store.putObject(blob);
    store.putObject(blob);  // twice: still one whole file
    store.putObject(empty);
    store.putObject(commit);

    auto path = store.objectPath(blob.id());
    EXPECT_EQ(path.parent_path().filename(), blob.id().substr(0, 3));
    EXPECT_EQ(asText(zlibInflate(readFile(path))), std::string_view("blob 6\0hello\n", 13));
    EXPECT_EQ(asText(zlibInflate(readFile(store.objectPath(empty.id())))),
              std::string_view("blob 0\0", 7));
    EXPECT_EQ(store.getObject(empty.id()), empty);
    EXPECT_EQ(store.getObject(commit.id()), commit);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path.parent_path()), {}), 1);
    // A file of our own lends its compressed body.
    std::optional<Bytes> stream;
    EXPECT_EQ(store.getObject(blob.id(), &stream), blob);
    ASSERT_TRUE(stream);
    EXPECT_EQ(zlibInflate(*stream), blob.data());

    // A loose object as git writes it, one plain stream, reads but lends nothing.
    Object other(ObjectType::blob, toBytes("written by git"));
    Bytes loose = toBytes("blob 14");
    loose.push_back(0);
    loose.insert(loose.end(), other.data().begin(), other.data().end());
    std::filesystem::create_directories(store.objectPath(other.id()).parent_path());
    writeFileAtomically(store.objectPath(other.id()), zlibDeflate(loose));
    stream.reset();
    EXPECT_EQ(store.getObject(other.id(), &stream), other);
    EXPECT_FALSE(stream);
}

TEST_F(StoreTest, CorruptFilesAreDeletedAndReported) {
    Object blob(ObjectType::blob, Bytes(10000, 'x'));
    store.putObject(blob);
    auto path = store.objectPath(blob.id());
    Bytes whole = readFile(path);
    writeFileAtomically(path, ByteView(whole).first(whole.size() / 2));
    EXPECT_EQ(testing::errorMessage([&] { store.getObject(blob.id()); }),
              "Corrupted cache file for object " + blob.id());
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(testing::errorMessage([&] { store.getObject(blob.id()); }),
              "No such file or directory");
    // Bytes that are no zlib stream at all go the same way.
    store.putObject(blob);
    writeFileAtomically(path, toBytes("overwritten"));
    EXPECT_EQ(testing::errorMessage([&] { store.getObject(blob.id()); }),
              "Corrupted cache file for object " + blob.id());
    EXPECT_FALSE(std::filesystem::exists(path));

    // Hashes right but the header is not one: "<type> <size>\0".
    Bytes odd = toBytes("bolb 3");
    odd.push_back(0);
    odd.insert(odd.end(), {'a', 'b', 'c'});
    std::string oddId = hexString(sha1(odd));
    std::filesystem::create_directories(store.objectPath(oddId).parent_path());
    writeFileAtomically(store.objectPath(oddId), zlibDeflate(odd));
    EXPECT_EQ(testing::errorMessage([&] { store.getObject(oddId); }),
              "Failed to decode object " + oddId);
}

TEST_F(StoreTest, PlacesDownloadedFilesKeepingSoundOnesAlreadyThere) {
    Store source(dir.path() + "/source", timing);
    Object blob(ObjectType::blob, toBytes("placed"));
    source.putObject(blob);
    store.placeObjectFile(blob.id(), source.objectPath(blob.id()));
    store.placeObjectFile(blob.id(), source.objectPath(blob.id()));
    EXPECT_EQ(store.getObject(blob.id()), blob);
    // A damaged file already in place gives way to the download.
    writeFileAtomically(store.objectPath(blob.id()), toBytes("damaged"));
    store.placeObjectFile(blob.id(), source.objectPath(blob.id()));
    EXPECT_EQ(store.getObject(blob.id()), blob);

    Object other(ObjectType::blob, toBytes("other"));
    source.putObject(other);
    // A download whose bytes are not the object it claims to be is refused when read, and
    // removed.
    store.placeObjectFile(std::string(40, 'a'), source.objectPath(other.id()));
    EXPECT_EQ(testing::errorMessage([&] { store.getObject(std::string(40, 'a')); }),
              "Corrupted cache file for object " + std::string(40, 'a'));
    EXPECT_FALSE(store.hasObject(std::string(40, 'a')));

    // A download that others may read is copied, not linked: the cache's copy stays private.
    Object shared(ObjectType::blob, toBytes("readable by all"));
    source.putObject(shared);
    ASSERT_EQ(::chmod(source.objectPath(shared.id()).c_str(), 0644), 0);
    store.placeObjectFile(shared.id(), source.objectPath(shared.id()));
    EXPECT_EQ(store.getObject(shared.id()), shared);
    expectPrivateFiles(dir.path() + "/Objects");
}

TEST_F(StoreTest, PacksHoldManyObjectsInOneFileThatEveryStoreFinds) {
    Store loose(dir.path() + "/loose", timing);
    Store& writer = store;
    Store other(dir.path() + "/Objects", timing);  // as another process sees the cache
    Object cached(ObjectType::blob, toBytes("cached already"));
    writer.putObject(cached);
    std::vector<Object> objects{Object(ObjectType::blob, Bytes(3000, 'p')),
                                Object(ObjectType::commit, toBytes(kCommit)), cached};

    auto pack = writer.beginPack();
    for (const auto& object : objects)
        writer.putObject(object, *pack);
    // Readable by the writer at once, as the very bytes a loose file would hold.
    for (const auto& object : objects) {
        EXPECT_EQ(writer.getObject(object.id()), object);
        loose.putObject(object);
        auto location = writer.locate(object.id());
        ASSERT_TRUE(location);
        Bytes file = readFile(location->file);
        EXPECT_EQ(
            Bytes(file.begin() + static_cast<std::ptrdiff_t>(location->offset),
                  file.begin() + static_cast<std::ptrdiff_t>(location->offset + location->size)),
            readFile(loose.objectPath(object.id())));
        EXPECT_EQ(location->wholeFile, object == cached);  // not written twice
    }
    EXPECT_FALSE(other.hasObject(objects[0].id()));  // not before the pack is complete
    writer.commitPack(pack);
    EXPECT_EQ(other.getObject(objects[1].id()), objects[1]);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() + "/Objects/packs"), {}),
              2);
    expectPrivateFiles(dir.path() + "/Objects");
    expectPrivateFiles(dir.path() + "/loose");

    // A damaged entry counts as absent, and the download placed for it is read instead.
    auto damaged = other.locate(objects[0].id());
    {
        std::fstream file(damaged->file, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(damaged->offset + damaged->size / 2));
        file << "damage";
    }
    EXPECT_EQ(testing::errorMessage([&] { other.getObject(objects[0].id()); }),
              "Corrupted cache file for object " + objects[0].id());
    EXPECT_FALSE(other.hasObject(objects[0].id()));
    other.placeObjectFile(objects[0].id(), loose.objectPath(objects[0].id()));
    EXPECT_EQ(other.getObject(objects[0].id()), objects[0]);

    // An abandoned pack takes its objects with it.
    Object dropped(ObjectType::blob, toBytes("dropped"));
    auto abandoned = writer.beginPack();
    writer.putObject(dropped, *abandoned);
    EXPECT_TRUE(writer.hasObject(dropped.id()));
    writer.abandonPack(abandoned);
    EXPECT_FALSE(writer.hasObject(dropped.id()));
    EXPECT_FALSE(std::filesystem::exists(abandoned->path()));
}

TEST_F(StoreTest, StoredPacksAreFoundByEveryStoreAndRebuildAcrossPacksAndLooseFiles) {
    auto text = [](const std::string& last) {
        std::string body;
        for (int i = 0; i < 40; ++i)
            body += "line " + std::to_string(i) + " of a file\n";
        return Object(ObjectType::blob, toBytes(body + last));
    };
    Object loose = text("loose\n"), a = text("a\n"), b = text("b\n"), c = text("c\n"),
           d = text("d\n");
    store.putObject(loose);
    // One pack: a whole, b on a, c on a loose file; the next: d on b, in the first pack.
    StoredPackBuilder first;
    testing::addWhole(first, a);
    testing::addDelta(first, b, a);
    testing::addDelta(first, c, loose);
    auto one = first.finish();
    StoredPackBuilder second;
    testing::addDelta(second, d, b);
    auto two = second.finish();

    // An index that does not describe the data is refused, and nothing is placed.
    EXPECT_EQ(
        testing::errorMessage([&] { store.storedPacks().place(one.name, two.data, one.index); }),
        "Corrupted pack " + one.name + ": its data is not the data its index describes");
    EXPECT_FALSE(store.hasObject(a.id()));
    store.storedPacks().place(one.name, one.data, one.index);
    store.storedPacks().place(two.name, two.data, two.index);
    store.storedPacks().place(two.name, two.data, two.index);  // twice: kept as it is
    Store other(dir.path() + "/Objects", timing);              // as another process sees the cache
    for (const auto* object : {&a, &b, &c, &d}) {
        EXPECT_TRUE(other.hasObject(object->id()));
        EXPECT_EQ(other.getObject(object->id()), *object);
        EXPECT_FALSE(other.locate(object->id()));  // no cache file of its own
    }
    expectPrivateFiles(dir.path() + "/Objects");

    // Packs whose deltas lean on each other end in an error, not in a crash.
    Object x = text("x\n"), y = text("y\n");
    StoredPackBuilder leaning, back;
    testing::addDelta(leaning, x, y);
    testing::addDelta(back, y, x);
    auto three = leaning.finish();
    auto four = back.finish();
    store.storedPacks().place(three.name, three.data, three.index);
    store.storedPacks().place(four.name, four.data, four.index);
    EXPECT_TRUE(testing::errorMessage([&] {
                    store.getObject(x.id());
                }).ends_with(" loops through other packs"));

    // Unused for a week, a pack goes: its index, then its data.
    ageFile(dir.path() + "/Objects/stored/" + two.name + ".data", std::chrono::hours(24 * 8));
    EXPECT_EQ(store.expire(std::chrono::system_clock::now()), 2u);
    EXPECT_FALSE(store.hasObject(d.id()));
    EXPECT_TRUE(store.hasObject(b.id()));
}

TEST_F(StoreTest, SweepDeletesWhatIsUnusedForAWeek) {
    Store writer(dir.path() + "/Objects", timing);  // another process
    Object old(ObjectType::blob, toBytes("old"));
    Object fresh(ObjectType::blob, toBytes("fresh"));
    Object packed(ObjectType::blob, toBytes("packed"));
    writer.putObject(old);
    writer.putObject(fresh);
    auto oldPack = writer.beginPack();
    writer.putObject(packed, *oldPack);
    writer.commitPack(oldPack);
    auto unfinished = writer.beginPack();
    auto stillWritten = writer.beginPack();

    auto working = store.workingFile("__defaultOwner__.abc");
    std::ofstream(working) << "meta";
    ageFile(store.objectPath(old.id()), std::chrono::hours(24 * 8));
    ageFile(working, std::chrono::hours(24 * 8));
    ageFile(store.objectPath(fresh.id()), std::chrono::hours(24 * 6));
    ageFile(oldPack->path(), std::chrono::hours(24 * 8));
    ageFile(unfinished->path(), std::chrono::hours(25));  // its writer is gone

    EXPECT_TRUE(store.hasObject(packed.id()));
    EXPECT_EQ(store.expire(std::chrono::system_clock::now()), 5u);  // 2 files, 2 packs, 1 index
    EXPECT_FALSE(store.hasObject(old.id()));
    EXPECT_FALSE(store.hasObject(packed.id()));
    EXPECT_FALSE(std::filesystem::exists(working));
    EXPECT_FALSE(std::filesystem::exists(unfinished->path()));
    EXPECT_TRUE(std::filesystem::exists(stillWritten->path()));
    EXPECT_TRUE(store.hasObject(fresh.id()));
    // Reading an object counts as a use.
    ageFile(store.objectPath(fresh.id()), std::chrono::hours(24 * 8));
    store.getObject(fresh.id());
    EXPECT_EQ(store.expire(std::chrono::system_clock::now()), 0u);
}

TEST_F(StoreTest, ExpiryThreadStopsPromptlyWithItsStore) {
    for (int i = 0; i < 20; ++i) {
        auto started = std::chrono::steady_clock::now();
        { Store expiring(dir.path() + "/Objects"); }
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
    }
}

}  // namespace
}  // namespace corvane
