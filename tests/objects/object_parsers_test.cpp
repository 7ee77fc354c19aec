// The object model and the commit, tree and tag parsers on hand-made contents: the edge cases
// real histories rarely show, and every failure message.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/error.h"
#include "objects/commit.h"
#include "objects/object.h"
#include "objects/tag.h"
#include "objects/tree.h"
#include "support/error_message.h"

namespace corvane {
namespace {

using testing::errorMessage;

const std::string kTreeId = "4b825dc642cb6eb9a060e54bf8d69288fbee4904";  // the empty tree
const std::string kId1 = std::string(40, '1');
const std::string kId2 = std::string(40, '2');
const std::string kId3 = std::string(40, '3');
const std::string kPerson = "Jo <jo@example.org> 1500000000 +0200";
const std::string kPeople = "author " + kPerson + "\ncommitter " + kPerson + "\n";

// One tree entry: "<mode> <name>" NUL and the 20 raw id bytes.
std::string treeEntry(std::string_view mode, std::string_view name, char idByte) {
    return std::string(mode) + " " + std::string(name) + '\0' + std::string(20, idByte);
}

// A malformed object and the message it must fail with; the id is appended unless told not to.
struct BadObject {
    std::string what;
    std::string text;
    std::string message;
    bool appendId = true;
};

template <typename Parse>
void expectFailures(ObjectType type, const std::vector<BadObject>& cases, Parse parse) {
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.what);
        Object object(type, toBytes(bad.text));
        EXPECT_EQ(errorMessage([&] { parse(object, TextCheck::utf8); }),
                  bad.message + (bad.appendId ? object.id() : ""));
    }
}

TEST(Object, IdFollowsTypeAndData) {
    Object blob(ObjectType::blob, toBytes("hello\n"));
    EXPECT_EQ(blob.id(), "ce013625030ba8dba906f756967f9e9ca394464a");  // git's
    EXPECT_EQ(blob.data(), toBytes("hello\n"));
    EXPECT_EQ(Object(ObjectType::tree, {}).id(), kTreeId);
    EXPECT_EQ(blob, Object(ObjectType::blob, toBytes("hello\n")));
    EXPECT_NE(blob, Object(ObjectType::tag, toBytes("hello\n")));
    EXPECT_NE((RefDelta{kId1, toBytes("ab")}), (RefDelta{kId2, toBytes("ab")}));
}

TEST(Signature, ReadsNameEmailAndTime) {
    EXPECT_EQ(parseSignature("Jo <jo> 1500000000 +0200"), (CommitSignature{"Jo", "jo", 1.5e9}));
    EXPECT_EQ(parseSignature("Jo <jo> 1500000000 -1130").timestamp, 1.5e9);  // zone unused
    EXPECT_EQ(parseSignature("Jo <jo> 12.5 +0000").timestamp, 12.5);
    EXPECT_EQ(parseSignature("Jo <jo>"), (CommitSignature{"Jo", "jo", std::nullopt}));
    EXPECT_EQ(parseSignature("Jo <jo> 1500000000").timestamp, std::nullopt);  // no zone
    EXPECT_EQ(parseSignature("Jo <jo> 15x +0200").timestamp, std::nullopt);
    EXPECT_EQ(parseSignature("<jo> 1 +0000"), (CommitSignature{"", "jo", 1.0}));
    EXPECT_EQ(parseSignature("Zoë Ünal <z ü> 1 +0100"), (CommitSignature{"Zoë Ünal", "z ü", 1.0}));
    // Without the separating space the last character goes, whole even when it is not ASCII.
    EXPECT_EQ(parseSignature("Zoë<z> 1 +0000").name, "Zo");
    for (std::string_view text : {"", "Jo jo> 1 +0000", "Jo <jo 1 +0000", "Jo >jo< 1 +0000"}) {
        EXPECT_EQ(errorMessage([&] { parseSignature(text); }), "Invalid email in commit object")
            << text;
    }
}

TEST(CommitParser, ReadsEveryFieldAndRefusesMalformedCommits) {
    auto parse = [](const std::string& text) {
        return parseCommit(Object(ObjectType::commit, toBytes(text)));
    };
    std::string octopus = "tree " + kTreeId + "\nparent " + kId1 + "\nparent " + kId2 +
                          "\nparent " + kId3 + "\nauthor " + kPerson +
                          "\ncommitter Max <max@example.org> 1600000000 -0500\n"
                          "\nMerge three\n\nDetails.\n";
    auto commit = parse(octopus);
    EXPECT_EQ(commit, (Commit{Object(ObjectType::commit, toBytes(octopus)).id(),
                              kTreeId,
                              {kId1, kId2, kId3},
                              {"Jo", "jo@example.org", 1.5e9},
                              {"Max", "max@example.org", 1.6e9},
                              "Merge three\n\nDetails.\n"}));
    EXPECT_EQ(commit.title(), "Merge three");

    std::string tree = "tree " + kTreeId + "\n";
    auto root = parse(tree + kPeople + "\none line");
    EXPECT_TRUE(root.parentIds.empty());
    EXPECT_EQ(root.title(), "one line");
    EXPECT_EQ(parse(tree + kPeople + "\n\nsecond\n").body, "\nsecond\n");
    EXPECT_EQ(parse(tree + kPeople + "\n").title(), "");
    EXPECT_EQ(parse(kPeople + "\nx").treeId, "");  // accepted without a tree
    // An empty author value is not taken, so a second author line is no duplicate.
    EXPECT_EQ(parse(tree + "author \n" + kPeople + "\nx").author.name, "Jo");
    // Signature blocks, stray continuation lines and unknown headers carry nothing used.
    auto signed_ = parse(tree + "parent " + kId1 + "\n" + kPeople +
                         "encoding ISO-8859-1\ngpgsig -----BEGIN PGP SIGNATURE-----\n \n tree " +
                         kId2 + "\n -----END PGP SIGNATURE-----\n parent " + kId3 +
                         "\nmergetag object " + kId3 + "\n type commit\n\nsigned\n");
    EXPECT_EQ(signed_.treeId, kTreeId);
    EXPECT_EQ(signed_.parentIds, std::vector<std::string>{kId1});
    EXPECT_EQ(signed_.body, "signed\n");
    // A Latin-1 message, as old histories have: refused as text, read for its links.
    Object latin1(ObjectType::commit,
                  toBytes(tree + "parent " + kId1 + "\n" + kPeople + "\nStorsj\xf6\n"));
    EXPECT_THROW(parseCommit(latin1), Error);
    EXPECT_EQ(parseCommit(latin1, TextCheck::none).parentIds, std::vector<std::string>{kId1});

    expectFailures(
        ObjectType::commit,
        {
            {"not UTF-8", tree + kPeople + "\nbad \xff\n", "Corrupted commit object "},
            {"overlong UTF-8", tree + kPeople + "\n\xc0\xaf\n", "Corrupted commit object "},
            {"no blank line", tree + kPeople + "message\n", "Corrupted commit object "},
            {"empty", "", "Corrupted commit object "},
            {"line without space", tree + "orphan\n" + kPeople + "\nx", "Corrupted commit "},
            {"second tree", tree + tree + kPeople + "\nx", "Corrupted commit "},
            {"uppercase tree", "tree " + std::string(40, 'A') + "\n" + kPeople + "\nx",
             "Corrupted commit "},
            {"short tree", "tree " + kTreeId.substr(1) + "\n" + kPeople + "\nx",
             "Corrupted commit "},
            {"long parent", tree + "parent " + kId1 + "1\n" + kPeople + "\nx",
             "Invalid parent on commit "},
            {"parent with g", tree + "parent " + kId1.substr(1) + "g\n" + kPeople + "\nx",
             "Invalid parent on commit "},
            {"two authors", tree + kPeople + "author " + kPerson + "\n\nx",
             "Multiple authors on commit "},
            {"two committers", tree + kPeople + "committer " + kPerson + "\n\nx",
             "Multiple committers on commit "},
            {"no author", tree + "committer " + kPerson + "\n\nx", "Invalid email in commit object",
             false},
            {"no committer", tree + "author " + kPerson + "\n\nx", "Invalid email in commit object",
             false},
        },
        parseCommit);
}

TEST(TreeParser, ReadsEntriesInOrderAndRefusesMalformedOnes) {
    Object object(ObjectType::tree,
                  toBytes(treeEntry("100644", "a b", '\x01') + treeEntry("40000", "src", '\xff') +
                          treeEntry("644", "Grüße 日本", ' ') + treeEntry("177777", "z", '\0')));
    auto tree = parseTree(object);
    EXPECT_EQ(tree.id, object.id());
    std::vector<TreeEntry> expected = {
        {"0101010101010101010101010101010101010101", "a b", 0x81a4},
        {std::string(40, 'f'), "src", 040000},
        {"2020202020202020202020202020202020202020", "Grüße 日本", 0644},  // NUL and space in ids
        {std::string(40, '0'), "z", 0xffff},
    };
    EXPECT_EQ(tree.entries, expected);
    EXPECT_TRUE(parseTree(Object(ObjectType::tree, {})).entries.empty());
    Object latin1(ObjectType::tree, toBytes(treeEntry("100644", "caf\xe9", '\x01')));
    EXPECT_THROW(parseTree(latin1), Error);
    EXPECT_EQ(parseTree(latin1, TextCheck::none).entries.at(0).id, expected.at(0).id);

    std::string good = treeEntry("100644", "a", '\x01');
    std::vector<BadObject> cases;
    for (auto [what, text] : std::vector<std::pair<std::string, std::string>>{
             {"no NUL", good + "100644 b"},
             {"no space", "100644a" + std::string(1, '\0') + std::string(20, '\x01')},
             {"mode not octal", treeEntry("100648", "a", '\x01')},
             {"empty mode", treeEntry("", "a", '\x01')},
             {"signed mode", treeEntry("-1", "a", '\x01')},
             {"mode past 16 bits", treeEntry("200000", "a", '\x01')},
             {"id cut short", good + good.substr(0, good.size() - 1)},
             {"name not UTF-8", treeEntry("100644", "\xfe", '\x01')},
         })
        cases.push_back({what, text, "Corrupted tree object "});
    expectFailures(ObjectType::tree, cases, parseTree);
}

TEST(TagParser, ReadsTargetTypeTaggerAndBodyAndRefusesMalformedTags) {
    std::string object = "object " + kId1 + "\n";
    std::string tagger = "tagger " + kPerson + "\n";
    Object release(ObjectType::tag, toBytes(object + "type tree\ntag v1.0\n" + tagger +
                                            "\nRelease\n-----BEGIN PGP SIGNATURE-----\n"));
    EXPECT_EQ(parseTag(release), (Tag{release.id(), kId1, ObjectType::tree,
                                      CommitSignature{"Jo", "jo@example.org", 1.5e9},
                                      "Release\n-----BEGIN PGP SIGNATURE-----\n"}));
    expectFailures(
        ObjectType::tag,
        {
            {"not UTF-8", object + "type commit\n" + tagger + "\n\x80", "Corrupted tag object "},
            {"no blank line", object + "type commit\n" + tagger, "Invalid tag "},
            {"line without space", object + "type commit\nlonely\n" + tagger + "\nx",
             "Invalid tag "},
            {"bad object", "object " + kId1.substr(2) + "\ntype commit\n" + tagger + "\nx",
             "Invalid tag "},
            {"type error", object + "type error\n" + tagger + "\nx", "Invalid tag "},
            {"unknown type", object + "type commits\n" + tagger + "\nx", "Invalid tag "},
            {"no object", "type commit\n" + tagger + "\nx", "Invalid tag "},
            {"no type", object + tagger + "\nx", "Invalid tag "},
            {"two taggers", object + "type commit\n" + tagger + tagger + "\nx",
             "Multiple taggers on tag "},
            {"no tagger", object + "type commit\n\nx", "Invalid email in commit object", false},
        },
        parseTag);
}

}  // namespace
}  // namespace corvane
