#include "storage/repository_meta.h"

#include <gtest/gtest.h>

#include "objects/lzfse_compression.h"
#include "storage/incremental_meta.h"
#include "support/error_message.h"
#include "support/git_objects.h"
#include "support/process.h"

namespace corvane {
namespace {

TEST(RepositoryMeta, RoundTripsTheSummariesOfARealHistory) {
    testing::TempDir folder;
    RepositoryContent content;
    std::size_t objects = 0;
    testing::forEachBundleObject(testing::lz4Bundle(), folder.path(),
                                 [&](const std::string&, std::string_view type, const Bytes& data) {
                                     summarise(Object(*objectTypeFromName(type), data), content);
                                     ++objects;
                                 });
    ASSERT_EQ(objects, 16086u);
    std::string commit;
    content.commits.forEach([&](const std::string& id, const PartialCommit&) { commit = id; });
    content.refs["refs/heads/dev"] = commit;
    content.refs["refs/tags/v1.0"] = commit;
    content.tags.add(std::string(40, 'a'), {commit, ObjectType::commit});
    content.packs["abc"] = 123456;
    content.retiredPacks["P" + std::string(40, 'b')] = 1764000000;

    Bytes document = encodeRepositoryMeta(content);
    EXPECT_LT(document.size(), encodeRepositoryMetaJson(content).size() / 2);
    EXPECT_EQ(decodeRepositoryMeta(document, 2), content);
}

// Packs retired, forgotten once emptied, and pushed again: the same state whether increments are
// applied one by one or merged first, as saves merge them.
TEST(RepositoryMeta, IncrementsRetireForgetAndRevivePacksInAnyMergeOrder) {
    RepositoryContent before;
    before.packs = {{"PA", 1}, {"PB", 2}};
    RepositoryContent retired = before;
    retired.packs.erase("PA");
    retired.retiredPacks["PA"] = 5;
    retired.packs["PC"] = 3;
    RepositoryContent forgotten = retired;
    forgotten.retiredPacks.erase("PA");
    forgotten.packs.erase("PB");
    forgotten.retiredPacks["PB"] = 6;
    RepositoryContent revived = forgotten;
    revived.packs["PB"] = 2;
    revived.retiredPacks.erase("PB");
    std::vector<RepositoryContent> increments = {incrementBetween(before, retired),
                                                 incrementBetween(retired, forgotten),
                                                 incrementBetween(forgotten, revived)};
    RepositoryContent oneByOne = before;
    for (const auto& increment : increments)
        applyIncrement(increment, oneByOne);
    EXPECT_EQ(oneByOne, revived);
    for (std::size_t first = 0; first < increments.size(); ++first) {
        RepositoryContent merged;
        for (std::size_t i = first; i < increments.size(); ++i)
            applyIncrement(increments[i], merged, true);
        RepositoryContent state = before;
        for (std::size_t i = 0; i < first; ++i)
            applyIncrement(increments[i], state);
        applyIncrement(merged, state);
        EXPECT_EQ(state, revived) << "merged from " << first;
        // An increment survives its document.
        EXPECT_EQ(decodeRepositoryMeta(encodeRepositoryMeta(merged), 2), merged);
    }
    RepositoryContent lost = before;
    lost.packs.erase("PA");
    EXPECT_EQ(testing::errorMessage([&] { incrementBetween(before, lost); }),
              "Pack PA left the repository without being retired");
}

TEST(RepositoryMeta, ReadsVersionOneDocuments) {
    std::string c(40, 'c'), t(40, 't'), s(40, '5'), b(40, 'b'), g(40, 'g'), p(40, 'p');
    std::string json = R"({"HEAD": "ref: refs/heads/old", "refs": {"refs/heads/master": ")" + c +
                       R"("}, "tags": {")" + g + R"(": {"id": ")" + g + R"(", "target": ")" + c +
                       R"(", "type": "commit"}, ")" + p + R"(": {"id": ")" + p +
                       R"(", "target": ")" + c + R"(", "type": "frobnicate"}},
        "commits": {")" +
                       c + R"(": {"id": ")" + c + R"(", "trees": [")" + t +
                       R"("], "parents": []}},
        "trees": {")" + t +
                       R"(": {"id": ")" + t + R"(", "trees": [")" + s + R"("], "blobs": [")" + b +
                       R"("]}}})";
    auto content = decodeRepositoryMetaJson(json, 1);
    EXPECT_EQ(content.refs.at("refs/heads/master"), c);
    EXPECT_EQ(content.tags.at(g), (PartialTag{c, ObjectType::commit}));
    EXPECT_EQ(content.tags.at(p).type, ObjectType::error);  // an unknown type word
    EXPECT_EQ(content.commits.at(c), (PartialCommit{t, {}}));
    EXPECT_EQ(content.trees.at(t), (PartialTree{{treeLink(s)}, {treeLink(b)}}));
    EXPECT_TRUE(content.blobs.empty());
    // Through the compressed form too.
    EXPECT_EQ(decodeRepositoryMeta(lzfseCompress(asBytes(json)), 1), content);

    std::string noTree =
        R"({"commits": {")" + c + R"(": {"id": ")" + c + R"(", "trees": [], "parents": []}}})";
    EXPECT_EQ(testing::errorMessage([&] { decodeRepositoryMetaJson(noTree, 1); }),
              "Invalid repository metadata: commit " + c + " has no tree");
}

TEST(RepositoryMeta, RefusesMalformedDocuments) {
    for (std::string bad :
         {R"([])", R"({"refs": []})", R"({"refs": {"a": 1}})", R"({"blobs": {"x": "big"}})",
          R"({"commits": {"x": 3}})", R"({"tags": {"x": {"type": 5}}})", R"({"refs": {)", "\xff",
          R"({"blobs": {"x": 4e112}})"}) {
        auto message = testing::errorMessage([&] { decodeRepositoryMetaJson(bad, 2); });
        EXPECT_TRUE(message.starts_with("Invalid repository metadata: ")) << bad << " " << message;
    }
    // Unknown keys at any level are skipped whole.
    auto content = decodeRepositoryMetaJson(
        R"({"future": {"deep": [1, {"x": null}]}, "blobs": {"b": 5}, "trees": {"t": {"extra": [[]],
            "trees": [], "blobs": []}}})",
        2);
    EXPECT_EQ(content.blobs.at("b"), 5);
    EXPECT_EQ(decodeRepositoryMetaJson(R"({"blobs": {"b": 7.0}})", 2).blobs.at("b"), 7);
    EXPECT_EQ(content.trees.size(), 1u);
    EXPECT_EQ(testing::errorMessage([] { decodeRepositoryMeta(asBytes("not lzfse"), 2); }),
              "Decompression error");
}

}  // namespace
}  // namespace corvane
