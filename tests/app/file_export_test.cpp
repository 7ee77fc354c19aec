// Writing a repository's files and folders out, as a drag does: every kind of entry, names no
// file may have, and nothing on disk overwritten or followed.
#include "app/file_export.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "base/error.h"
#include "objects/sha1.h"
#include "storage/cloud_fixture.h"
#include "support/error_message.h"

namespace corvane {
namespace {

struct FileExportTest : testing::StoreFixture {
    // Missing objects are "fetched" from nowhere: the fetch fails as the cloud's would.
    ObjectFetcher fetcher{
        store,
        [](const std::string&, const std::string&, const std::set<std::string>& packIds) {
            std::map<std::string, PackResult> results;
            for (const auto& pack : packIds)
                results[pack].error = "Record does not exist.";
            return results;
        },
        [](const std::set<std::string>&) {}};
    std::shared_ptr<const Repository> repository = std::make_shared<Repository>("tools");

    std::string put(ObjectType type, const std::string& data) {
        Object object(type, toBytes(data));
        store.putObject(object);
        return object.id();
    }
    // A tree of (mode, name, id) entries, stored.
    std::string tree(
        const std::vector<std::tuple<std::string, std::string, std::string>>& entries) {
        std::string data;
        for (const auto& [mode, name, id] : entries) {
            auto digest = digestOfId(id);
            data += mode + " " + name + '\0' + std::string(digest.begin(), digest.end());
        }
        return put(ObjectType::tree, data);
    }
    static std::string read(const std::filesystem::path& path) {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
};

TEST_F(FileExportTest, FilesFoldersLinksAndSubmodulesComeOutAsACloneHasThem) {
    auto text = put(ObjectType::blob, "hello\n");
    auto script = put(ObjectType::blob, "#!/bin/sh\n");
    auto inner = tree({{"100644", "guide.md", put(ObjectType::blob, "# Guide\n")}});
    auto docs = tree({{"40000", "deeper", inner},
                      {"100755", "run.sh", script},
                      {"120000", "link", put(ObjectType::blob, "run.sh")},
                      {"160000", "vendor", text}});  // a submodule: any commit id
    testing::TempDir out;
    FileExport exporter(fetcher, repository);
    ASSERT_TRUE(exporter.write({{text, "a.txt", 0100644}, {docs, "docs", 040000}}, out.path()));
    std::filesystem::path root = out.path();
    EXPECT_EQ(read(root / "a.txt"), "hello\n");
    EXPECT_EQ(read(root / "docs/deeper/guide.md"), "# Guide\n");
    EXPECT_EQ(read(root / "docs/run.sh"), "#!/bin/sh\n");
    struct stat info {};
    ASSERT_EQ(::stat((root / "docs/run.sh").c_str(), &info), 0);
    EXPECT_NE(info.st_mode & S_IXUSR, 0u);
    ASSERT_EQ(::stat((root / "a.txt").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & S_IXUSR, 0u);
    EXPECT_EQ(std::filesystem::read_symlink(root / "docs/link"), "run.sh");
    EXPECT_TRUE(std::filesystem::is_empty(root / "docs/vendor"));
    EXPECT_EQ(exporter.filesWritten(), 4u);

    // What is already there is neither overwritten nor followed.
    std::filesystem::create_directory_symlink("/nonexistent", root / "escape");
    EXPECT_NE(testing::errorMessage([&] {
                  exporter.write({{text, "a.txt"}}, out.path());
              }).find("a.txt"),
              std::string::npos);
    EXPECT_THROW(exporter.write({{text, "escape"}}, out.path()), Error);
    EXPECT_EQ(read(root / "a.txt"), "hello\n");

    // Names no file may have, wherever the tree holds them; an object the cloud cannot give.
    auto hostile = tree({{"100644", "..", text}});
    EXPECT_EQ(testing::errorMessage([&] {
                  exporter.write({{hostile, "up", 040000}}, out.path());
              }),
              "\"..\" cannot be the name of a file");
    auto missing = Object(ObjectType::blob, toBytes("never stored")).id();
    EXPECT_THROW(exporter.write({{missing, "gone.txt"}}, out.path()), std::exception);

    // Cancelled: nothing more is written.
    FileExport stopped(fetcher, repository);
    stopped.cancel();
    EXPECT_FALSE(stopped.write({{text, "late.txt"}}, out.path()));
    EXPECT_FALSE(std::filesystem::exists(root / "late.txt"));
}

}  // namespace
}  // namespace corvane
