// The Files tab: kinds of files, listing, placeholders, navigation.
#include <QTreeView>

#include "ui/views/file_browser.h"
#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;

TEST(FileKinds, NamesAreClassifiedThroughTheMimeDatabase) {
    const std::pair<const char*, FileKind> cases[] = {
        {"README", FileKind::text},
        {"Makefile", FileKind::text},
        {"notes.md", FileKind::text},
        {"notes.txt", FileKind::text},
        {"x.unknownextension", FileKind::text},
        {"main.cpp", FileKind::code},
        {"build.sh", FileKind::code},
        {"data.json", FileKind::code},
        {"photo.png", FileKind::image},
        {"song.mp3", FileKind::image},
        {"clip.mp4", FileKind::image},
        {"bundle.zip", FileKind::archive},
        {"source.tar.gz", FileKind::archive},
        {"manual.pdf", FileKind::pdf},
        {"program.exe", FileKind::binary},
    };
    for (const auto& [name, kind] : cases)
        EXPECT_EQ(fileKindOf(name, false), kind) << name;
    EXPECT_EQ(fileKindOf("src", true), FileKind::directory);
}

class FilesTest : public UiFixture {
  protected:
    static Bytes entry(const char* mode, const std::string& name, const Object& object) {
        Bytes bytes = toBytes(std::string(mode) + " " + name);
        bytes.push_back(0);
        auto id = digestOfId(object.id());
        bytes.insert(bytes.end(), id.begin(), id.end());
        return bytes;
    }
    QStringList names(const FileBrowser& browser) {
        QStringList shown;
        for (int row = 0; row < browser.model().rowCount(); ++row)
            shown << browser.model().index(row, 0).data().toString();
        return shown;
    }
    QString info(const FileBrowser& browser, int row) {
        return browser.model().index(row, 1).data().toString();
    }
};

TEST_F(FilesTest, DirectoriesListFromTheCacheOrAsPlaceholdersAndRememberTheWayBack) {
    ObjectLoader loader(state());
    FileBrowser browser(state(), loader, nullptr);
    auto tools = create("tools");
    // alpha.txt, beta.cpp and src/ (holding one file); src's tree is nowhere to be read.
    Object alpha(ObjectType::blob, toBytes("twelve bytes"));
    Object beta(ObjectType::blob, toBytes("int main() {}\n"));
    Bytes srcEntries = entry("100644", "lib.cpp", beta);
    Object src(ObjectType::tree, srcEntries);
    Bytes rootEntries = entry("100644", "alpha.txt", alpha);
    for (const auto& part : {entry("100644", "beta.cpp", beta), entry("40000", "src", src)})
        rootEntries.insert(rootEntries.end(), part.begin(), part.end());
    Object root(ObjectType::tree, rootEntries);
    Object commit(ObjectType::commit,
                  toBytes("tree " + root.id() +
                          "\nauthor A <a@b> 1 +0000\ncommitter A <a@b> 1 +0000\n\nOne\n"));
    {
        Repository::ContentUpdate update(*tools);
        for (const auto* object : {&alpha, &beta, &src, &root, &commit}) {
            summarise(*object, update.content());
            if (object != &src) state().store().putObject(*object);
        }
        update.content().refs["refs/heads/main"] = commit.id();
        state().backend().saveRepository(tools, update);
    }
    state().selectRepository(tools->url());
    ASSERT_TRUE(waitFor([&] {
        return names(browser) == QStringList{"alpha.txt", "beta.cpp", "src"};
    })) << names(browser).join(",").toStdString();
    EXPECT_EQ(info(browser, 0), "12 bytes");
    EXPECT_EQ(info(browser, 2), "1 item");
    EXPECT_EQ(browser.model().items()[1].kind, FileKind::code);
    EXPECT_EQ(browser.model().items()[2].kind, FileKind::directory);
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools"}));

    browser.open(0);  // a file: previewed over the same place
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools"}));
    browser.closePreview();
    browser.tableView()->setCurrentIndex(browser.model().index(1, 0));
    browser.open(2);
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools", "src"}));
    // src's tree cannot be read: its one child shows as a placeholder, without size.
    ASSERT_EQ(browser.model().rowCount(), 1);
    EXPECT_EQ(browser.model().items()[0].kind, FileKind::loading);
    EXPECT_EQ(names(browser), (QStringList{QString(10, QChar(0x2588))}));
    EXPECT_EQ(info(browser, 0), "");
    // Once someone else has fetched it, the placeholders fill in.
    bool failed = false;  // a read after the browser's, failing as it did
    loader.load(tools, src.id(), [&](const auto& object, const auto&) { failed = !object; });
    ASSERT_TRUE(waitFor([&] { return failed; }));
    state().store().putObject(src);
    ASSERT_TRUE(waitFor([&] {
        state().send(event::ObjectsLoaded{{src.id()}});
        return names(browser) == QStringList{"lib.cpp"};
    }));

    browser.back();  // to the directory as it was left
    ASSERT_TRUE(waitFor([&] { return names(browser).contains("beta.cpp"); }));
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools"}));
    EXPECT_EQ(browser.tableView()->currentIndex().data().toString(), "beta.cpp");
    browser.forward();
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools", "src"}));
    browser.showDepth(0);
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools"}));
    browser.forward();  // a new place ends the way forward
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools"}));
    browser.back();
    EXPECT_EQ(browser.pathComponents(), (QStringList{"tools", "src"}));

    // Choosing another head starts again at its root.
    state().send(event::BranchSelected{"main"});
    ASSERT_TRUE(waitFor([&] { return browser.pathComponents() == QStringList{"tools"}; }));
}

}  // namespace
}  // namespace corvane::ui
