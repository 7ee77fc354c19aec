// Saving and fetching records: fields, change tags, save policies, atomic and partial saves,
// callbacks, and fetches of many ids.
#include <gtest/gtest.h>

#include <thread>

#include "cloud/partial_failure.h"
#include "cloud_test_support.h"

namespace corvane::cloud {
namespace {

using testing::CloudTest;
using testing::fetchOne;
using testing::makeRecord;
using testing::saveAll;
using testing::saveOne;

const ZoneId kZone{"5f2c6a7d"};

class RecordTest : public CloudTest {
  protected:
    void SetUp() override {
        CloudTest::SetUp();
        container = openAs("ann@example.com");
        database().saveRecordZone(kZone);
    }
    Database& database() { return container->privateCloudDatabase(); }

    std::unique_ptr<Container> container;
};

int codeOf(const PartialFailure& failure, const std::string& name) {
    return failure.partialErrors().at(RecordId{name, kZone}).code();
}

TEST_F(RecordTest, EveryFieldKindRoundTrips) {
    auto record = makeRecord("pack", "abc", kZone);
    record.set("version", 2);
    record.set("name", "tools");
    record.set("ids", std::vector<std::string>{"abc1", "abc2"});
    record.set("objects", std::vector<Asset>{Asset{file("o1", "one")}, Asset{file("o2", "two")}});
    record.set("meta", Asset{file("meta", "document")});
    record.set("link", Reference{RecordId{"REPOSITORY", kZone}});
    record.setParent(RecordId{"REPOSITORY", kZone});
    auto saved = saveOne(database(), record);
    ASSERT_TRUE(saved.recordChangeTag);
    ASSERT_TRUE(saved.creationDate && saved.modificationDate);

    auto fetched = fetchOne(database(), record.recordId);
    ASSERT_TRUE(fetched.record) << fetched.error->what();
    const auto& got = *fetched.record;
    EXPECT_EQ(got.recordType, "pack");
    EXPECT_EQ(got.recordId, record.recordId);
    EXPECT_EQ(*got.get<std::int64_t>("version"), 2);
    EXPECT_EQ(*got.get<std::string>("name"), "tools");
    EXPECT_EQ(*got.get<std::vector<std::string>>("ids"),
              (std::vector<std::string>{"abc1", "abc2"}));
    auto objects = *got.get<std::vector<Asset>>("objects");
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(testing::readFile(*objects[0].fileURL), "one");
    EXPECT_EQ(testing::readFile(*objects[1].fileURL), "two");
    EXPECT_EQ(testing::readFile(*got.get<Asset>("meta")->fileURL), "document");
    EXPECT_EQ(got.get<Reference>("link")->recordId, (RecordId{"REPOSITORY", kZone}));
    ASSERT_TRUE(got.parent);
    EXPECT_EQ(got.parent->recordId, (RecordId{"REPOSITORY", kZone}));
    EXPECT_EQ(got.recordChangeTag, saved.recordChangeTag);
    EXPECT_EQ(got.creationDate, saved.creationDate);
    EXPECT_EQ(got.modificationDate, saved.modificationDate);
    EXPECT_FALSE(got.isShare());
}

TEST_F(RecordTest, MissingRecordsAreUnknownItems) {
    saveOne(database(), makeRecord("t", "present", kZone));
    std::vector<RecordId> ids{{"absent", kZone}, {"present", kZone}};
    auto results = database().fetchRecords(ids);
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].recordId, ids[0]);
    ASSERT_TRUE(results[0].error);
    EXPECT_EQ(results[0].error->code(), kUnknownItem);
    EXPECT_FALSE(results[0].record);
    EXPECT_TRUE(results[1].record);
    EXPECT_FALSE(results[1].error);
}

TEST_F(RecordTest, PolicyZeroRefusesAStaleChangeTag) {
    auto first = saveOne(database(), makeRecord("t", "r", kZone));
    auto fetched = *fetchOne(database(), first.recordId).record;
    fetched.set("n", 1);
    auto second = saveOne(database(), fetched);
    EXPECT_NE(second.recordChangeTag, first.recordChangeTag);
    EXPECT_EQ(second.creationDate, first.creationDate);

    first.set("n", 99);  // still carries the first change tag
    try {
        saveOne(database(), first);
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(codeOf(failure, "r"), kServerRecordChanged);
    }
    // A record made afresh has no change tag at all: also stale against a stored one.
    try {
        saveOne(database(), makeRecord("t", "r", kZone));
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(codeOf(failure, "r"), kServerRecordChanged);
    }
    EXPECT_EQ(*fetchOne(database(), first.recordId).record->get<std::int64_t>("n"), 1);
}

TEST_F(RecordTest, PolicyZeroWithATagOfADeletedRecordIsUnknownItem) {
    auto saved = saveOne(database(), makeRecord("t", "r", kZone));
    database().deleteRecordZone(kZone);
    database().saveRecordZone(kZone);
    try {
        saveOne(database(), saved);
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(codeOf(failure, "r"), kUnknownItem);
    }
}

TEST_F(RecordTest, PolicyTwoOverwritesWhateverIsStored) {
    auto first = saveOne(database(), makeRecord("t", "r", kZone));
    auto fresh = makeRecord("t", "r", kZone);
    fresh.set("n", 7);
    auto second = saveOne(database(), fresh, SavePolicy::allKeys);
    EXPECT_EQ(second.creationDate, first.creationDate);
    first.set("stale", 1);
    saveOne(database(), first, SavePolicy::allKeys);
    auto got = *fetchOne(database(), first.recordId).record;
    EXPECT_EQ(got.get<std::int64_t>("n"), nullptr);  // the whole record was replaced
    EXPECT_EQ(*got.get<std::int64_t>("stale"), 1);
}

TEST_F(RecordTest, AnAtomicSaveWithOneStaleRecordStoresNothing) {
    saveOne(database(), makeRecord("t", "taken", kZone));
    std::vector<Record> records;
    for (int i = 0; i < 5; ++i) {
        auto record = makeRecord("t", "new" + std::to_string(i), kZone);
        record.set("blob", Asset{file("f" + std::to_string(i), "content " + std::to_string(i))});
        records.push_back(record);
    }
    records.insert(records.begin() + 3, makeRecord("t", "taken", kZone));
    auto before = container->storageUsage();
    std::vector<std::string> completions;
    ModifyRecordsOperation operation;
    operation.recordsToSave = records;
    operation.perRecordCompletion = [&](const RecordId& id, const Record* saved,
                                        const CloudError* error) {
        ASSERT_TRUE(error);
        EXPECT_FALSE(saved);
        completions.push_back(id.recordName + ":" + std::to_string(error->code()));
    };
    operation.perRecordProgress = [&](const Record&, double) { ADD_FAILURE(); };
    try {
        database().modifyRecords(operation);
        FAIL();
    } catch (const PartialFailure& failure) {
        EXPECT_EQ(failure.partialErrors().size(), 6u);
        EXPECT_EQ(codeOf(failure, "taken"), kServerRecordChanged);
        EXPECT_EQ(codeOf(failure, "new0"), kBatchRequestFailed);
        EXPECT_NE(std::string(failure.what()).find("changed"), std::string::npos);
    }
    EXPECT_EQ(completions.size(), 6u);
    EXPECT_EQ(completions[3], "taken:14");
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(fetchOne(database(), RecordId{"new" + std::to_string(i), kZone}).error->code(),
                  kUnknownItem);
    }
    EXPECT_EQ(container->storageUsage().assetCount, before.assetCount);
}

TEST_F(RecordTest, AnAtomicSaveThatFailsHalfWayLeavesNothing) {
    saveOne(database(), makeRecord("t", "kept", kZone));
    std::vector<Record> records;
    for (int i = 0; i < 6; ++i) {
        auto record = makeRecord("t", "r" + std::to_string(i), kZone);
        record.set("blob", Asset{file("f" + std::to_string(i), std::string(100 + i, 'x'))});
        records.push_back(record);
    }
    // Fail at statement 1, 2, 3, ... until the save gets through; each failure must leave the
    // store exactly as before.
    bool succeeded = false;
    for (int failAt = 1; !succeeded && failAt < 400; ++failAt) {
        int countdown = failAt + 1000000;  // opening the container is not under test
        auto faulty = Container::open(testing::faultyFactory(factoryFor("ann@example.com"),
                                                             countdown, testing::failStatement),
                                      optionsFor("ann@example.com"));
        countdown = failAt;
        try {
            saveAll(faulty->privateCloudDatabase(), records);
            succeeded = true;
        } catch (const PartialFailure&) {
            FAIL() << "an engine failure is not a record failure";
        } catch (const CloudError& error) {
            EXPECT_STREQ(error.what(), "injected failure");
            EXPECT_EQ(fetchOne(database(), RecordId{"r0", kZone}).error->code(), kUnknownItem)
                << "fail at " << failAt;
            EXPECT_EQ(fetchOne(database(), RecordId{"r5", kZone}).error->code(), kUnknownItem);
            EXPECT_EQ(container->storageUsage().assetCount, 0);
        }
    }
    ASSERT_TRUE(succeeded);
    EXPECT_TRUE(fetchOne(database(), RecordId{"r5", kZone}).record);
    EXPECT_EQ(container->storageUsage().assetCount, 6);
}

TEST_F(RecordTest, ANonAtomicSaveStoresTheRestAndListsEachFailure) {
    auto stale = saveOne(database(), makeRecord("t", "stale", kZone));
    saveOne(database(), *fetchOne(database(), stale.recordId).record);

    auto noFile = makeRecord("t", "nofile", kZone);
    noFile.set("blob", Asset{folder() / "does-not-exist"});
    auto otherZone = makeRecord("t", "otherzone", ZoneId{"missing"});
    auto badRef = makeRecord("t", "badref", kZone);
    badRef.set("link", Reference{RecordId{"x", ZoneId{"elsewhere"}}});
    auto good = makeRecord("t", "good", kZone);
    good.set("blob", Asset{file("good", "good bytes")});

    std::vector<std::string> progress;
    std::vector<std::string> completions;
    ModifyRecordsOperation operation;
    operation.recordsToSave = {stale, noFile, good, otherZone, badRef};
    operation.atomic = false;
    operation.perRecordProgress = [&](const Record& record, double value) {
        EXPECT_EQ(value, 1.0);
        progress.push_back(record.recordId.recordName);
    };
    operation.perRecordCompletion = [&](const RecordId& id, const Record* saved,
                                        const CloudError* error) {
        EXPECT_NE(saved == nullptr, error == nullptr);
        completions.push_back(id.recordName);
    };
    try {
        database().modifyRecords(operation);
        FAIL();
    } catch (const PartialFailure& failure) {
        const auto& errors = failure.partialErrors();
        ASSERT_EQ(errors.size(), 4u);
        EXPECT_EQ(errors.at(stale.recordId).code(), kServerRecordChanged);
        EXPECT_EQ(errors.at(noFile.recordId).code(), kAssetFileNotFound);
        EXPECT_EQ(errors.at(otherZone.recordId).code(), kUnknownItem);
        EXPECT_EQ(errors.at(badRef.recordId).code(), kInvalidArguments);
    }
    EXPECT_EQ(progress, std::vector<std::string>{"good"});
    EXPECT_EQ(completions,
              (std::vector<std::string>{"stale", "nofile", "good", "otherzone", "badref"}));
    auto fetched = fetchOne(database(), good.recordId);
    ASSERT_TRUE(fetched.record);
    EXPECT_EQ(testing::readFile(*fetched.record->get<Asset>("blob")->fileURL), "good bytes");
}

TEST_F(RecordTest, SuccessfulSavesReportProgressAndCompletionPerRecord) {
    std::vector<Record> records;
    for (int i = 0; i < 3; ++i)
        records.push_back(makeRecord("t", "r" + std::to_string(i), kZone));
    int progress = 0;
    int completed = 0;
    ModifyRecordsOperation operation;
    operation.recordsToSave = records;
    operation.perRecordProgress = [&](const Record&, double) { ++progress; };
    operation.perRecordCompletion = [&](const RecordId&, const Record* saved, const CloudError*) {
        ASSERT_TRUE(saved);
        EXPECT_TRUE(saved->recordChangeTag);
        ++completed;
    };
    auto saved = database().modifyRecords(operation);
    EXPECT_EQ(saved.size(), 3u);
    EXPECT_EQ(progress, 3);
    EXPECT_EQ(completed, 3);
}

TEST_F(RecordTest, SavingTheSameIdTwiceInOneSaveIsRefused) {
    try {
        saveAll(database(), {makeRecord("t", "r", kZone), makeRecord("t", "r", kZone)});
        FAIL();
    } catch (const CloudError& error) {
        EXPECT_EQ(error.code(), kInvalidArguments);
    }
}

TEST_F(RecordTest, FetchesOfManyIdsComeBackInOrderAcrossGroups) {
    std::vector<Record> records;
    for (int i = 0; i < 250; ++i) {
        auto record = makeRecord("pack", "p" + std::to_string(i), kZone);
        record.set("i", i);
        records.push_back(record);
    }
    saveAll(database(), records);
    std::vector<RecordId> ids;
    for (int i = 0; i < 260; ++i)
        ids.push_back(RecordId{"p" + std::to_string(i), kZone});
    ids.insert(ids.begin() + 150, RecordId{"p7", ZoneId{"missing"}});

    int calls = 0;
    std::vector<FetchResult> results;
    database().fetchRecords(ids, [&](FetchResult&& result) {
        ++calls;
        results.push_back(std::move(result));
    });
    ASSERT_EQ(calls, 261);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(results[i].recordId, ids[i]);
        bool exists = ids[i].zoneId == kZone && std::stoi(ids[i].recordName.substr(1)) < 250;
        EXPECT_EQ(results[i].record.has_value(), exists) << ids[i].recordName;
        if (exists) {
            EXPECT_EQ(*results[i].record->get<std::int64_t>("i"),
                      std::stoi(ids[i].recordName.substr(1)));
        } else {
            EXPECT_EQ(results[i].error->code(), kUnknownItem);
        }
    }
}

TEST_F(RecordTest, InvalidRecordsAreRefused) {
    auto noType = makeRecord("", "r", kZone);
    auto parentElsewhere = makeRecord("t", "p", kZone);
    parentElsewhere.setParent(RecordId{"x", ZoneId{"other"}});
    auto fakeShare = makeRecord(std::string(kShareRecordType), "s", kZone);
    try {
        saveAll(database(), {noType, parentElsewhere, fakeShare}, SavePolicy::allKeys, false);
        FAIL();
    } catch (const PartialFailure& failure) {
        for (const auto& [id, error] : failure.partialErrors())
            EXPECT_EQ(error.code(), kInvalidArguments) << id.recordName;
        EXPECT_EQ(failure.partialErrors().size(), 3u);
    }
}

TEST_F(RecordTest, ADamagedStoredRecordIsAnErrorForThatRecordOnly) {
    saveOne(database(), makeRecord("t", "good", kZone));
    saveOne(database(), makeRecord("t", "bad", kZone));
    {
        auto connection = adminConnection();
        Bytes garbage{1, 200, 0, 0, 0};
        connection->execute("UPDATE records SET fields = ? WHERE name = 'bad'",
                            {ByteView(garbage)});
    }
    std::vector<RecordId> ids{{"bad", kZone}, {"good", kZone}};
    auto results = database().fetchRecords(ids);
    ASSERT_TRUE(results[0].error);
    EXPECT_EQ(results[0].error->code(), kInternalError);
    EXPECT_NE(std::string(results[0].error->what()).find("bad"), std::string::npos);
    EXPECT_TRUE(results[1].record);
}

TEST_F(RecordTest, ThreadsOfOneProcessSaveAndFetchAtOnce) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            try {
                for (int i = 0; i < 20; ++i) {
                    auto name = "t" + std::to_string(t) + "-" + std::to_string(i);
                    auto record = makeRecord("t", name, kZone);
                    record.set("blob", Asset{file(name, name)});
                    saveOne(database(), record);
                    auto fetched = fetchOne(database(), record.recordId);
                    EXPECT_EQ(testing::readFile(*fetched.record->get<Asset>("blob")->fileURL),
                              name);
                }
            } catch (const std::exception& error) {
                ADD_FAILURE() << error.what();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(container->storageUsage().assetCount, 80);
}

}  // namespace
}  // namespace corvane::cloud
