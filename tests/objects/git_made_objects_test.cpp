// Objects made by the real git that the stored histories lack: annotated tags of every kind,
// signed and merge commits, an encoding header, trees with every entry mode and unusual names.
// Each rebuilt Object must have git's id and each parsed field must say what git wrote.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "git_repo.h"
#include "objects/commit.h"
#include "objects/object.h"
#include "objects/tag.h"
#include "objects/tree.h"
#include "support/error_message.h"

namespace corvane {
namespace {

using testing::errorMessage;
using testing::GitRepo;

const CommitSignature kAuthor{"Ada Lovelace", "ada@example.org", 1500000000.0};
const CommitSignature kCommitter{"Charles Babbage", "charles@example.org", 1600000000.0};

// Reads an object from git and rebuilds it; its id must be the one git gave it.
Object readObject(const GitRepo& repo, ObjectType type, const std::string& id) {
    Object object(type, repo.readObject(typeName(type), id));
    EXPECT_EQ(object.id(), id);
    return object;
}

void writeFile(const GitRepo& repo, const std::string& name, std::string_view contents) {
    std::ofstream(repo.path() + "/" + name, std::ios::binary) << contents;
}

// A repository with one commit holding a file.
struct OneCommit {
    OneCommit() {
        writeFile(repo, "file.txt", "hello\n");
        repo.git({"add", "file.txt"});
        repo.git({"commit", "--quiet", "-m", "First commit\n\nWith a body."});
        commit = repo.gitLine({"rev-parse", "HEAD"});
        tree = repo.gitLine({"rev-parse", "HEAD^{tree}"});
        blob = repo.gitLine({"rev-parse", "HEAD:file.txt"});
    }
    GitRepo repo;
    std::string commit;
    std::string tree;
    std::string blob;
};

TEST(GitMadeObjects, Commits) {
    OneCommit made;
    auto& repo = made.repo;
    auto parse = [&](const std::string& id) {
        return parseCommit(readObject(repo, ObjectType::commit, id));
    };
    EXPECT_EQ(
        parse(made.commit),
        (Commit{
            made.commit, made.tree, {}, kAuthor, kCommitter, "First commit\n\nWith a body.\n"}));

    // Signed, written by hand: the block has a line that is a single space.
    std::string gpgsig =
        "\ngpgsig -----BEGIN PGP SIGNATURE-----\n \n iQIzBAABCAAdFiEEq0UFQeFmN2o6"
        "\n tree 0000000000000000000000000000000000000000\n =Xq7c"
        "\n -----END PGP SIGNATURE-----\n";
    std::string signedId = repo.writeObject(
        "commit", "tree " + made.tree + "\nparent " + made.commit +
                      "\nauthor Ada Lovelace <ada@example.org> 1500000000 +0200"
                      "\ncommitter Charles Babbage <charles@example.org> 1600000000 -0500" +
                      gpgsig + "\nSigned change\n\nSecond paragraph.\n");
    EXPECT_EQ(parse(signedId), (Commit{signedId,
                                       made.tree,
                                       {made.commit},
                                       kAuthor,
                                       kCommitter,
                                       "Signed change\n\nSecond paragraph.\n"}));

    std::vector<std::string> parents;
    for (const char* message : {"left", "middle", "right"})
        parents.push_back(
            repo.gitLine({"commit-tree", made.tree, "-p", made.commit, "-m", message}));
    auto octopus = parse(repo.gitLine({"commit-tree", made.tree, "-p", parents[2], "-p", parents[0],
                                       "-p", parents[1], "-m", "Octopus"}));
    EXPECT_EQ(octopus.parentIds, (std::vector<std::string>{parents[2], parents[0], parents[1]}));

    std::vector<std::string> latin1{"-c", "i18n.commitEncoding=ISO-8859-1", "commit-tree",
                                    made.tree, "-m"};
    latin1.push_back("plain ascii");
    std::string encodedId = repo.gitLine(latin1);
    ASSERT_NE(repo.git({"cat-file", "commit", encodedId}).find("\nencoding ISO-8859-1\n"),
              std::string::npos);
    EXPECT_EQ(parse(encodedId).body, "plain ascii\n");
    // A message really in Latin-1 is not UTF-8 and is refused.
    latin1.back() = "caf\xe9";
    std::string latin1Id = repo.gitLine(latin1);
    auto object = readObject(repo, ObjectType::commit, latin1Id);
    EXPECT_EQ(errorMessage([&] { parseCommit(object); }), "Corrupted commit object " + latin1Id);
}

TEST(GitMadeObjects, AnnotatedTagsOfACommitATreeABlobAndATag) {
    OneCommit made;
    auto& repo = made.repo;
    repo.git({"tag", "-a", "v1", "-m", "Release one\n\nNotes."});
    repo.git({"tag", "-a", "snapshot", "-m", "a tree", made.tree});
    repo.git({"tag", "-a", "readme", "-m", "a blob", made.blob});
    repo.git({"tag", "-a", "signed-off", "-m", "a tag", "v1"});
    auto parse = [&](const std::string& name) {
        return parseTag(readObject(repo, ObjectType::tag, repo.gitLine({"rev-parse", name})));
    };
    auto v1 = parse("v1");
    EXPECT_EQ(v1,
              (Tag{v1.id, made.commit, ObjectType::commit, kCommitter, "Release one\n\nNotes.\n"}));
    auto tree = parse("snapshot");
    EXPECT_EQ(tree, (Tag{tree.id, made.tree, ObjectType::tree, kCommitter, "a tree\n"}));
    auto blob = parse("readme");
    EXPECT_EQ(blob, (Tag{blob.id, made.blob, ObjectType::blob, kCommitter, "a blob\n"}));
    auto tag = parse("signed-off");
    EXPECT_EQ(tag, (Tag{tag.id, v1.id, ObjectType::tag, kCommitter, "a tag\n"}));
}

TEST(GitMadeObjects, TreeWithEveryModeAndUnusualNames) {
    OneCommit made;
    auto& repo = made.repo;
    namespace fs = std::filesystem;
    writeFile(repo, "with space.txt", "spaces\n");
    writeFile(repo, "ünïcødé 日本.md", "non-ASCII\n");
    writeFile(repo, "run.sh", "#!/bin/sh\necho hi\n");
    fs::permissions(repo.path() + "/run.sh", fs::perms::owner_exec, fs::perm_options::add);
    fs::create_symlink("file.txt", repo.path() + "/link");
    fs::create_directory(repo.path() + "/dir");
    writeFile(repo, "dir/inner.txt", "inner\n");
    repo.git({"add", "-A"});
    repo.git({"update-index", "--add", "--cacheinfo", "160000," + made.commit + ",sub"});
    std::string treeId = repo.gitLine({"write-tree"});

    auto tree = parseTree(readObject(repo, ObjectType::tree, treeId));
    EXPECT_EQ(tree.id, treeId);

    // git's own listing, NUL-separated so that names come unquoted: "<mode> <type> <id>\t<name>".
    auto listing = repo.git({"ls-tree", "-z", treeId});
    std::vector<TreeEntry> expected;
    for (std::size_t start = 0; start < listing.size();) {
        auto end = listing.find('\0', start);
        std::string line = listing.substr(start, end - start);
        start = end + 1;
        auto tab = line.find('\t');
        expected.push_back({line.substr(tab - 40, 40), line.substr(tab + 1),
                            static_cast<std::uint16_t>(std::stoul(line.substr(0, 6), nullptr, 8))});
    }
    EXPECT_EQ(tree.entries, expected);

    std::map<std::string, int> modes;
    for (const auto& entry : tree.entries)
        modes[entry.name] = entry.mode;
    EXPECT_EQ(modes, (std::map<std::string, int>{{"file.txt", 0x81a4},
                                                 {"run.sh", 0100755},
                                                 {"link", 0120000},
                                                 {"dir", 040000},
                                                 {"sub", 0160000},
                                                 {"with space.txt", 0100644},
                                                 {"ünïcødé 日本.md", 0100644}}));
    EXPECT_EQ(tree.entries.at(4).name, "sub");  // git sorts by name bytes
    EXPECT_EQ(tree.entries.at(4).id, made.commit);
}

}  // namespace
}  // namespace corvane
