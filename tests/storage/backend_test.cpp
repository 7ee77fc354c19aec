#include "storage/backend.h"

#include <gtest/gtest.h>

#include "storage/cloud_fixture.h"
#include "storage/file_io.h"
#include "support/error_message.h"
#include "support/trace_capture.h"

namespace corvane {
namespace {

struct BackendTest : testing::CloudFixture {
    std::vector<std::shared_ptr<Repository>> list() {
        return wait<std::vector<std::shared_ptr<Repository>>>(
            [&](auto done) { backend.fetchRepositories(done); });
    }
};

TEST_F(BackendTest, CreateFetchListDelete) {
    testing::TraceCapture log;
    auto created = create("tools");
    EXPECT_EQ(created->url(), "git://localhost/tools");
    ASSERT_TRUE(created->share() && created->share()->share && created->share()->share->url);
    EXPECT_TRUE(created->shareURL()->starts_with("corvane://share/"));
    create("other");
    // A zone left over from an interrupted creation is skipped.
    container->privateCloudDatabase().saveRecordZone({"leftover", "__defaultOwner__"});

    auto repositories = list();
    ASSERT_EQ(repositories.size(), 2u);
    EXPECT_TRUE(log.contains("Missing repository record for zone leftover"));
    EXPECT_TRUE(log.contains("<< Fetched 2 private repositories: tools, other") ||
                log.contains("<< Fetched 2 private repositories: other, tools"));

    // One that a newer Corvane wrote is listed with its error, beside the others as they are.
    auto& database = container->privateCloudDatabase();
    auto newer = create("newer");
    auto record = *newer->record();
    writeFileAtomically(dir.path() + "/meta", toBytes("not for this version"));
    record.set("meta", cloud::Asset{dir.path() + "/meta"});
    record.set("version", std::int64_t{99});
    cloud::ModifyRecordsOperation operation;
    operation.recordsToSave = {record};
    operation.savePolicy = cloud::SavePolicy::allKeys;
    database.modifyRecords(operation);
    std::map<std::string, std::optional<std::string>> errors;
    for (const auto& repository : list())
        errors[repository->name()] = repository->loadError();
    EXPECT_EQ(errors, (std::map<std::string, std::optional<std::string>>{
                          {"newer", "Unsupported repository version. Try updating Corvane."},
                          {"other", std::nullopt},
                          {"tools", std::nullopt}}));
    wait<Done>([&](auto done) { backend.deleteRepository(newer, done); });

    auto fetched = backend.fetchRepository("tools", "__defaultOwner__");
    EXPECT_EQ(fetched->id(), created->id());

    // Listing again reads nothing that did not change: the same repositories come back.
    auto again = list();
    EXPECT_EQ(again, repositories);
    auto listed = [&](const std::string& name) {
        for (const auto& repository : list()) {
            if (repository->name() == name) return repository;
        }
        return std::shared_ptr<Repository>();
    };

    // Her answer changes the people but not the share's change tag; a fetch, and the list,
    // still show it.
    auto ada = openAs("ada@example.com");
    wait<Done>([&](auto done) { backend.addContributor(fetched, "ada@example.com", done); });
    auto status = [&] {
        return backend.fetchRepository("tools", "__defaultOwner__")->participants().at(1).status;
    };
    EXPECT_EQ(status(), Participant::Status::pending);
    auto invited = listed("tools");
    EXPECT_EQ(invited->participants().at(1).status, Participant::Status::pending);
    EXPECT_EQ(listed("other"), again[again[0]->name() == "other" ? 0 : 1]);
    ada->acceptShare(ada->fetchShareMetadata(*created->shareURL(), false));
    EXPECT_EQ(status(), Participant::Status::accepted);
    EXPECT_EQ(listed("tools")->participants().at(1).status, Participant::Status::accepted);
    ada->sharedCloudDatabase().deleteRecordZone(
        ada->sharedCloudDatabase().fetchAllRecordZones()[0]);
    EXPECT_EQ(status(), Participant::Status::removed);
    wait<Done>([&](auto done) { backend.deleteRepository(fetched, done); });
    EXPECT_EQ(testing::errorMessage([&] { backend.fetchRepository("tools", "__defaultOwner__"); }),
              "private repository tools does not exist");
    EXPECT_EQ(testing::errorMessage([&] { backend.fetchRepository("tools", "_someone"); }),
              "shared repository tools does not exist");
    EXPECT_EQ(list().size(), 1u);
}

TEST_F(BackendTest, PushedObjectsGoUpInPacksAndComeBackThroughTheFetcher) {
    testing::TraceCapture log;
    auto repository = create("tools");
    Repository::ContentUpdate update(*repository);
    std::vector<std::string> ids;
    std::set<std::string> prefixes;
    for (int i = 0; prefixes.size() < Backend::kPackGroup + 50; ++i) {
        Object object(ObjectType::blob, toBytes("blob " + std::to_string(i)));
        store.putObject(object);
        summarise(object, update.content());
        ids.push_back(object.id());
        prefixes.insert(object.id().substr(0, 3));
    }
    std::size_t progressed = 0;
    auto sizes = backend.savePacks(
        ids, *repository, update.content(),
        [&](const std::vector<std::string>& saved) { progressed += saved.size(); });
    EXPECT_EQ(progressed, ids.size());
    EXPECT_EQ(sizes.size(), Backend::kPackGroup + 50);
    EXPECT_TRUE(
        log.contains("<< saved " + std::to_string(Backend::kPackGroup) + " packs on tools"));
    EXPECT_TRUE(log.contains("<< saved 50 packs on tools"));
    update.content().packs.insert(sizes.begin(), sizes.end());
    update.content().refs["refs/heads/master"] = ids.front();
    backend.saveRepository(repository, update);
    EXPECT_GT(repository->metaSize(), 0);
    mainQueue.drain();
    ASSERT_EQ(updated.size(), 1u);

    // Another machine: an empty cache, the same store.
    testing::TempDir elsewhere;
    Store fresh(elsewhere.path(), timing);
    LoopMainQueue otherQueue;
    Backend other(*container, fresh, otherQueue, {});
    auto loaded = other.fetchRepository("tools", "__defaultOwner__");
    EXPECT_EQ(loaded->content()->blobs.size(), ids.size());
    EXPECT_EQ(loaded->content()->packs, repository->content()->packs);
    other.fetcher().fetchObjects(ids, *loaded);
    for (const auto& id : ids)
        ASSERT_TRUE(fresh.hasObject(id));

    // The saved object carries the new change tag and saves again; a copy loaded before that
    // save is stale, is refused, and keeps its content.
    Repository::ContentUpdate again(*repository);
    again.content().refs["refs/heads/dev"] = ids.front();
    backend.saveRepository(repository, again);
    Repository::ContentUpdate stale(*loaded);
    stale.content().refs["refs/heads/master"] = ids.back();
    EXPECT_THROW(other.saveRepository(loaded, stale), Conflict);
    EXPECT_EQ(loaded->content()->refs.at("refs/heads/master"), ids.front());

    // The daemon's lookup decodes again what was saved elsewhere, then hands out the kept object
    // while the records stay as they are, with what its own pushes saved.
    auto current = other.fetchRepository("tools", "__defaultOwner__");
    EXPECT_NE(current, loaded);
    EXPECT_TRUE(current->content()->refs.contains("refs/heads/dev"));
    Repository::ContentUpdate own(*current);
    own.content().refs["refs/heads/own"] = ids.back();
    other.saveRepository(current, own);
    auto kept = other.fetchRepository("tools", "__defaultOwner__");
    EXPECT_EQ(kept, current);
    EXPECT_TRUE(kept->content()->refs.contains("refs/heads/own"));
}

TEST_F(BackendTest, LargeMetadataBecomesABaseWithIncrementsThatReadersFollow) {
    auto repository = create("tools");
    LoopMainQueue otherQueue;
    Backend reader(*container, store, otherQueue, {});
    auto versionOf = [&] { return *repository->record()->get<std::int64_t>("version"); };
    auto push = [&](int i) {
        Repository::ContentUpdate update(*repository);
        Object blob(ObjectType::blob, toBytes("blob " + std::to_string(i)));
        summarise(blob, update.content());
        update.content().refs["refs/heads/b" + std::to_string(i % 3)] = blob.id();
        if (i % 4 == 3) update.content().refs.erase("refs/heads/b0");
        backend.saveRepository(repository, update);
        // Whatever the layout, another daemon reads what was saved.
        auto seen = reader.fetchRepository("tools", "__defaultOwner__");
        EXPECT_EQ(*seen->content(), *repository->content()) << "push " << i;
        EXPECT_EQ(seen->metaSize(), repository->metaSize()) << "push " << i;
    };
    push(0);
    EXPECT_EQ(versionOf(), 2);
    backend.setIncrementalMetaThreshold(1);
    push(1);
    EXPECT_EQ(versionOf(), 3);
    EXPECT_FALSE(repository->record()->get<std::vector<cloud::Asset>>("increments"));
    for (int i = 2; i < 12; ++i)
        push(i);
    EXPECT_EQ(versionOf(), 3);
    auto record = repository->record();
    const auto* increments = record->get<std::vector<cloud::Asset>>("increments");
    ASSERT_TRUE(increments);
    // The next push merges with these: they are readable files, not the removed working files.
    for (const auto& increment : *increments)
        EXPECT_TRUE(std::filesystem::exists(*increment.fileURL));
}

TEST_F(BackendTest, PushesThatSaveTheSamePacksKeepEachOthersObjects) {
    auto repository = create("tools");
    // Two machines with caches of their own push different objects of the same prefixes, each
    // from the repository as it was before either push.
    testing::TempDir elsewhere;
    Store otherStore(elsewhere.path(), timing);
    LoopMainQueue otherQueue;
    Backend other(*container, otherStore, otherQueue, {});
    auto stale = other.fetchRepository("tools", "__defaultOwner__");
    auto objectsFor = [](const std::string& who, Store& cache, RepositoryContent& content) {
        std::vector<std::string> ids;
        std::set<std::string> prefixes;
        for (int i = 0; prefixes.size() < 120; ++i) {
            Object object(ObjectType::blob, toBytes(who + std::to_string(i)));
            if (object.id()[0] != 'a') continue;  // 256 prefixes: the two pushes meet often
            cache.putObject(object);
            summarise(object, content);
            ids.push_back(object.id());
            prefixes.insert(object.id().substr(0, 3));
        }
        return ids;
    };
    Repository::ContentUpdate mine(*repository);
    Repository::ContentUpdate theirs(*stale);
    auto myIds = objectsFor("mine", store, mine.content());
    auto theirIds = objectsFor("theirs", otherStore, theirs.content());
    auto mySizes = backend.savePacks(myIds, *repository, mine.content(), [](const auto&) {});
    // The other push knows of no pack: it creates, is refused, reads and merges.
    auto theirSizes = other.savePacks(theirIds, *stale, theirs.content(), [](const auto&) {});
    // A second round where both know the packs but read them before the other saved.
    mine.content().packs.insert(mySizes.begin(), mySizes.end());
    auto more = objectsFor("more", store, mine.content());
    backend.savePacks(more, *repository, mine.content(), [](const auto&) {});

    // A machine with an empty cache finds every object of all three saves.
    testing::TempDir third;
    Store fresh(third.path(), timing);
    LoopMainQueue thirdQueue;
    Backend reader(*container, fresh, thirdQueue, {});
    std::vector<std::string> all = myIds;
    all.insert(all.end(), theirIds.begin(), theirIds.end());
    all.insert(all.end(), more.begin(), more.end());
    reader.fetcher().fetchObjects(all, *stale);
    for (const auto& id : all)
        ASSERT_TRUE(fresh.hasObject(id)) << id;
    // Sizes count what the records hold, the other push's objects included.
    for (const auto& [packId, size] : theirSizes)
        EXPECT_GE(size, mySizes.contains(packId) ? mySizes.at(packId) : 0) << packId;
}

}  // namespace
}  // namespace corvane
