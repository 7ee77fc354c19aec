// Pack consolidation on a real embedded store: a repository of whole objects in packs of
// version 2 becomes stored packs of deltas, and a failure at any statement of the way leaves it
// readable whole, as before or as after; retired packs are emptied once their grace is over.
#include "storage/pack_consolidation.h"

#include <gtest/gtest.h>

#include "cloud/cloud_test_support.h"
#include "objects/tree.h"
#include "storage/cloud_fixture.h"
#include "storage/pack_consolidator.h"
#include "storage/stored_records.h"

namespace corvane {
namespace {

struct PackConsolidation : testing::CloudFixture {
    // A history of one file edited a line at a time beside one that never changes, saved as
    // pushes stored before stored packs were: whole objects in packs named by id prefixes.
    std::map<std::string, Object> makeVersion2Repository(const std::string& name) {
        auto repository = create(name);
        Repository::ContentUpdate update(*repository);
        std::map<std::string, Object> objects;
        auto keep = [&](Object object) {
            store.putObject(object);
            summarise(object, update.content());
            std::string id = object.id();
            objects.emplace(id, std::move(object));
            return id;
        };
        std::string text;
        for (int line = 0; line < 3000; ++line)
            text += "line " + std::to_string(line) + " of a file that changes a little each time\n";
        std::string stable = keep(Object(ObjectType::blob, toBytes(std::string(5000, 's'))));
        std::string parent;
        for (int version = 0; version < 30; ++version) {
            text.replace(text.find("line " + std::to_string(version * 7) + " "), 4, "LINE");
            std::string blob = keep(Object(ObjectType::blob, toBytes(text)));
            auto entry = [](const std::string& mode, const std::string& file,
                            const std::string& id) {
                Bytes bytes = toBytes(mode + " " + file + '\0');
                auto digest = digestOfId(id);
                bytes.insert(bytes.end(), digest.begin(), digest.end());
                return bytes;
            };
            Bytes treeData = entry("100644", "changing.txt", blob);
            auto second = entry("100644", "stable.txt", stable);
            treeData.insert(treeData.end(), second.begin(), second.end());
            std::string tree = keep(Object(ObjectType::tree, treeData));
            std::string commit = "tree " + tree + "\n";
            if (!parent.empty()) commit += "parent " + parent + "\n";
            commit +=
                "author A U Thor <a@example.com> 1700000000 +0000\n"
                "committer A U Thor <a@example.com> 1700000000 +0000\n\nversion " +
                std::to_string(version) + "\n";
            parent = keep(Object(ObjectType::commit, toBytes(commit)));
        }
        std::vector<std::string> ids;
        for (const auto& [id, object] : objects)
            ids.push_back(id);
        auto sizes = backend.savePacks(ids, *repository, update.content(), [](const auto&) {});
        update.content().packs.insert(sizes.begin(), sizes.end());
        update.content().refs["refs/heads/main"] = parent;
        backend.saveRepository(repository, update);
        return objects;
    }

    // What a machine with an empty cache reads of the repository: every object, checked.
    void expectWhole(const std::string& name, const std::map<std::string, Object>& objects,
                     const std::string& when) {
        testing::TempDir elsewhere;
        Store fresh(elsewhere.path(), timing);
        LoopMainQueue otherQueue;
        Backend reader(*container, fresh, otherQueue, {});
        auto repository = reader.fetchRepository(name, "__defaultOwner__");
        EXPECT_EQ(repository->content()->refs.size(), 1u) << when;
        for (const auto& [id, object] : objects) {
            ASSERT_EQ(reader.fetcher().readObject(id, *repository), object) << when << ": " << id;
        }
    }

    std::int64_t storedBytes(const std::string& name) {
        std::int64_t bytes = 0;
        for (const auto& [pack, size] :
             backend.fetchRepository(name, "__defaultOwner__")->content()->packs)
            bytes += size;
        return bytes;
    }
};

TEST_F(PackConsolidation, AVersion2RepositoryBecomesDeltasAndAFailureAnywhereLosesNothing) {
    auto objects = makeVersion2Repository("tools");
    auto before = backend.fetchRepository("tools", "__defaultOwner__")->content();
    EXPECT_EQ(packsToConsolidate(*before, false).size(), before->packs.size());
    std::int64_t wholeBytes = storedBytes("tools");

    // The same store through a connection that fails its n-th statement, for every n until the
    // consolidation goes through: each failure leaves every object readable.
    int countdown = 1 << 30;
    cloud::ContainerOptions options;
    options.assetCacheDirectory = dir.path() + "/cache/Assets-faulty";
    options.account.email = "owner@example.com";
    auto faulty = cloud::Container::open(
        cloud::testing::faultyFactory(dir.path() + "/cloud.sqlite", countdown,
                                      cloud::testing::failStatement),
        options);
    testing::TempDir faultyCache;
    Store faultyStore(faultyCache.path(), timing);
    LoopMainQueue faultyQueue;
    Backend consolidating(*faulty, faultyStore, faultyQueue, {});
    // Even without a grace, the packs a save retires stay whole in that save.
    consolidating.consolidator().setGrace(std::chrono::seconds(0));
    int failures = 0;
    for (int failAt = 1;; ++failAt) {
        ASSERT_LT(failAt, 500) << "the consolidation never went through";
        countdown = failAt;
        try {
            auto outcome =
                consolidating.consolidator().consolidate("tools", "__defaultOwner__", false);
            EXPECT_EQ(outcome.packsRetired, before->packs.size());
            break;
        } catch (const std::exception&) {
            ++failures;
            expectWhole("tools", objects, "failure at statement " + std::to_string(failAt));
        }
    }
    countdown = 1 << 30;
    EXPECT_GT(failures, 5);

    // Now stored packs alone, with the old packs retired, a fraction of the bytes, and whole.
    auto after = backend.fetchRepository("tools", "__defaultOwner__")->content();
    EXPECT_TRUE(holdsStoredPacks(*after));
    for (const auto& [pack, size] : after->packs)
        EXPECT_TRUE(isStoredPackName(pack)) << pack;
    EXPECT_EQ(after->retiredPacks.size(), before->packs.size());
    EXPECT_LT(storedBytes("tools") * 4, wholeBytes);
    expectWhole("tools", objects, "after consolidation");
    EXPECT_TRUE(packsToConsolidate(*after, false).empty());
    EXPECT_TRUE(packsToConsolidate(*after, true).empty());

    // Within the grace nothing is emptied; after it the retired records lose their data in the
    // save that forgets them, and the repository stays whole.
    EXPECT_EQ(backend.consolidator().consolidate("tools", "__defaultOwner__", true).packsEmptied,
              0u);
    backend.consolidator().setGrace(std::chrono::seconds(0));
    auto outcome = backend.consolidator().consolidate("tools", "__defaultOwner__", true);
    EXPECT_EQ(outcome.packsEmptied, before->packs.size());
    auto emptied = backend.fetchRepository("tools", "__defaultOwner__")->content();
    EXPECT_TRUE(emptied->retiredPacks.empty());
    EXPECT_EQ(emptied->packs, after->packs);
    std::vector<cloud::RecordId> retired;
    for (const auto& [pack, time] : after->retiredPacks)
        retired.push_back(
            {pack,
             {backend.fetchRepository("tools", "__defaultOwner__")->id(), "__defaultOwner__"}});
    for (const auto& result : container->privateCloudDatabase().fetchRecords(retired)) {
        ASSERT_TRUE(result.record) << result.recordId.recordName;
        EXPECT_EQ(result.record->fields.size(), 1u) << result.recordId.recordName;
    }
    expectWhole("tools", objects, "after the retired packs were emptied");
}

}  // namespace
}  // namespace corvane
