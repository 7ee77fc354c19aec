// Previews of files and what leaves the Files tab: the choice of view by name and bytes, each
// view's content, failures with a retry, media copies, drag-out files and the README.
#include <QFile>
#include <QFileInfo>
#include <QKeyEvent>
#include <QLabel>
#include <QMediaFormat>
#include <QMimeData>
#include <QPushButton>
#include <QTest>
#include <QToolButton>
#include <QTreeView>
#include <QUrl>

#include "ui/core/code_view.h"
#include "ui/core/markdown_view.h"
#include "ui/views/file_browser.h"
#include "ui/views/preview_controller.h"
#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;

TEST(PreviewContent, TheViewFollowsTheNameUnlessTheBytesAreNotText) {
    const std::pair<const char*, PreviewKind> byName[] = {
        {"photo.png", PreviewKind::image},    {"icon.svg", PreviewKind::image},
        {"README.md", PreviewKind::markdown}, {"main.cpp", PreviewKind::code},
        {"build.sh", PreviewKind::code},      {"CMakeLists.txt", PreviewKind::code},
        {"Makefile", PreviewKind::code},      {"README", PreviewKind::text},
        {"notes.txt", PreviewKind::text},     {"x.unknownextension", PreviewKind::text},
    };
    for (const auto& [name, kind] : byName)
        EXPECT_EQ(previewContentOf(name, "plain words\n").kind, kind) << name;
    EXPECT_EQ(lexerFor("main.cpp") != nullptr, true);
    EXPECT_EQ(lexerFor("notes.txt"), nullptr);

    // Not UTF-8, or with NUL bytes as executables have: binary, whatever the name says.
    for (const QByteArray& bytes : {QByteArray("caf\xe9\n"), QByteArray("ELF\0\1\2", 6)}) {
        PreviewContent content = previewContentOf("main.cpp", bytes);
        EXPECT_EQ(content.kind, PreviewKind::binary);
        EXPECT_EQ(content.shown, bytes);
        EXPECT_FALSE(content.truncated);
    }
    QByteArray big(static_cast<qsizetype>(kShownHexBytes) + 10, '\xff');
    PreviewContent start = previewContentOf("blob", big);
    EXPECT_EQ(start.shown.size(), static_cast<qsizetype>(kShownHexBytes));
    EXPECT_TRUE(start.truncated);

    // Long text is cut before a character that would be split, and stays valid UTF-8.
    QByteArray text(static_cast<qsizetype>(kShownTextBytes) - 1, 'a');
    text += "\xc3\xa9 and more";
    PreviewContent cut = previewContentOf("log.txt", text);
    EXPECT_EQ(cut.kind, PreviewKind::text);
    EXPECT_TRUE(cut.truncated);
    EXPECT_EQ(cut.shown.size(), static_cast<qsizetype>(kShownTextBytes) - 1);
    EXPECT_EQ(previewContentOf("log.txt", text.left(cut.shown.size() + 2)).kind, PreviewKind::text);

    EXPECT_EQ(hexDump(QByteArray("0123456789abcdef\x01", 17)),
              "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
              "00000010  01                                                |.|\n");
}

class PreviewTest : public UiFixture {
  protected:
    // Saves a root tree of the given files (name, mode, contents) as main's commit. A file whose
    // mode is "uncached" is in the tree only: its blob is nowhere to be read.
    std::shared_ptr<Repository> save(
        const std::vector<std::tuple<std::string, std::string, std::string>>& files) {
        auto repository = create("tools");
        Repository::ContentUpdate update(*repository);
        Bytes entries;
        for (const auto& [name, mode, contents] : files) {
            Object blob(ObjectType::blob, toBytes(contents));
            summarise(blob, update.content());
            if (mode != "uncached") state().store().putObject(blob);
            Bytes entry = toBytes((mode == "100755" ? "100755 " : "100644 ") + name);
            entry.push_back(0);
            auto id = digestOfId(blob.id());
            entry.insert(entry.end(), id.begin(), id.end());
            entries.insert(entries.end(), entry.begin(), entry.end());
            blobs[name] = blob.id();
        }
        Object root(ObjectType::tree, entries);
        Object commit(ObjectType::commit,
                      toBytes("tree " + root.id() +
                              "\nauthor A <a@b> 1 +0000\ncommitter A <a@b> 1 +0000\n\nOne\n"));
        for (const auto* object : {&root, &commit}) {
            summarise(*object, update.content());
            state().store().putObject(*object);
        }
        update.content().refs["refs/heads/main"] = commit.id();
        state().backend().saveRepository(repository, update);
        state().selectRepository(repository->url());
        return repository;
    }
    static int row(const FileBrowser& browser, const QString& name) {
        for (std::size_t i = 0; i < browser.model().items().size(); ++i) {
            if (browser.model().items()[i].name == name) return static_cast<int>(i);
        }
        return -1;
    }
    PreviewController* openAndWait(FileBrowser& browser, const QString& name) {
        browser.open(row(browser, name));
        auto* preview = browser.previewController();
        EXPECT_TRUE(preview != nullptr) << name.toStdString();
        if (!preview) return nullptr;
        EXPECT_TRUE(
            waitFor([&] { return preview->status() != PreviewController::Status::loading; }));
        return preview;
    }
    std::map<std::string, std::string> blobs;
};

TEST_F(PreviewTest, EachKindOfFileOpensInItsViewAndClosesAgain) {
    ObjectLoader loader(state());
    FileBrowser browser(state(), loader, nullptr);
    const std::string code = "int main() {\n    return 0;\n}\n";
    save({{"README.md", "100644", "# Tools\n\n| a | b |\n|---|---|\n| 1 | 2 |\n"},
          {"main.cpp", "100644", code},
          {"data.bin", "100644",
           std::string("\x7f"
                       "ELF\0\0\1",
                       7)},
          {"clip.mp4", "100644", "not really a movie"},
          {"lost.txt", "uncached", "fetched later"}});
    ASSERT_TRUE(
        waitFor([&] { return browser.model().rowCount() == 5 && row(browser, "main.cpp") >= 0; }));

    // The README is rendered under the listing.
    ASSERT_TRUE(waitFor([&] { return !browser.readmeView()->isHidden(); }));
    EXPECT_TRUE(browser.readmeView()->toPlainText().startsWith("Tools"));

    auto* preview = openAndWait(browser, "main.cpp");
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->titleField()->text(), "main.cpp");
    EXPECT_EQ(preview->content().kind, PreviewKind::code);
    ASSERT_EQ(preview->contentView(), preview->codeView());
    EXPECT_EQ(preview->codeView()->text().toStdString(), code);
    EXPECT_EQ(preview->codeView()->language(), "C++");
    // Space closes it as it opened it, even from the text, and the list has the keys again.
    QTest::keyClick(preview->codeView(), Qt::Key_Space);
    QCoreApplication::processEvents();
    EXPECT_EQ(browser.previewController(), nullptr);
    browser.tableView()->setCurrentIndex(browser.model().index(row(browser, "data.bin"), 0));
    QTest::keyClick(browser.tableView(), Qt::Key_Space);
    preview = browser.previewController();
    ASSERT_TRUE(preview);
    ASSERT_TRUE(waitFor([&] { return preview->status() == PreviewController::Status::shown; }));
    EXPECT_EQ(preview->content().kind, PreviewKind::binary);
    auto labels = preview->contentView()->findChildren<QLabel*>();
    ASSERT_EQ(labels.size(), 1);
    EXPECT_EQ(labels[0]->text(), "Binary file · 7 bytes");
    browser.closePreview();

    preview = openAndWait(browser, "README.md");
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->contentView(), preview->markdownView());
    EXPECT_FALSE(preview->sourceButton()->isHidden());
    preview->sourceButton()->click();
    ASSERT_EQ(preview->contentView(), preview->codeView());
    EXPECT_TRUE(preview->codeView()->text().startsWith("# Tools"));
    preview->sourceButton()->click();
    EXPECT_EQ(preview->contentView(), preview->markdownView());
    QTest::keyClick(preview->markdownView(), Qt::Key_Escape);
    EXPECT_EQ(browser.previewController(), nullptr);

    // Media play from a copy that keeps the extension and goes with the preview.
    if (isMediaFile("clip.mp4")) {
        preview = openAndWait(browser, "clip.mp4");
        ASSERT_TRUE(preview);
        ASSERT_EQ(preview->tempFiles().size(), 1);
        QString copy = preview->tempFiles()[0];
        EXPECT_TRUE(copy.endsWith(".mp4"));
        QFile file(copy);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_EQ(file.readAll(), "not really a movie");
        browser.closePreview();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        EXPECT_FALSE(QFileInfo::exists(copy));
    } else {
        ADD_FAILURE() << "Qt Multimedia plays no MP4 here";
    }

    // A blob that cannot be fetched: the reason and a retry, which works once it is here.
    preview = openAndWait(browser, "lost.txt");
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->status(), PreviewController::Status::failed);
    EXPECT_FALSE(preview->errorField()->text().isEmpty());
    state().store().putObject(Object(ObjectType::blob, toBytes("fetched later")));
    preview->retryButton()->click();
    ASSERT_TRUE(waitFor([&] { return preview->status() == PreviewController::Status::shown; }));
    EXPECT_EQ(preview->codeView()->text(), "fetched later");

    // Another head closes the preview.
    state().send(event::BranchSelected{"main"});
    ASSERT_TRUE(waitFor([&] { return browser.previewController() == nullptr; }));
}

TEST_F(PreviewTest, DraggedFilesAreWrittenWithTheirBytesAndModeIntoAFolderOfTheirOwn) {
    ObjectLoader loader(state());
    FileBrowser browser(state(), loader, nullptr);
    save({{"run.sh", "100755", "#!/bin/sh\necho hi\n"},
          {"notes.txt", "100644", "notes\n"},
          {"far.txt", "uncached", "not here"}});
    ASSERT_TRUE(waitFor([&] { return row(browser, "run.sh") >= 0; }));
    const auto& model = browser.model();
    auto index = [&](const char* name) { return model.index(row(browser, name), 0); };

    std::unique_ptr<QMimeData> drag(model.mimeData(
        {index("run.sh"), index("notes.txt"), model.index(row(browser, "notes.txt"), 1)}));
    ASSERT_TRUE(drag);
    auto urls = drag->urls();
    ASSERT_EQ(urls.size(), 2);  // each row counts once
    QFile script(urls[0].toLocalFile());
    EXPECT_TRUE(script.fileName().endsWith("/run.sh"));
    ASSERT_TRUE(script.open(QIODevice::ReadOnly));
    EXPECT_EQ(script.readAll(), "#!/bin/sh\necho hi\n");
    EXPECT_TRUE(script.permissions() & QFile::ExeOwner);
    QFile notes(urls[1].toLocalFile());
    ASSERT_TRUE(notes.open(QIODevice::ReadOnly));
    EXPECT_EQ(notes.readAll(), "notes\n");
    EXPECT_FALSE(notes.permissions() & QFile::ExeOwner);
    QString folder = QFileInfo(notes.fileName()).absolutePath();

    // A file that cannot be had: no drag, and the failure said.
    std::vector<std::string> said;
    auto receiver = EventReceiver::registerWith(state(), [&](const Event& event) {
        if (const auto* error = std::get_if<event::ShowError>(&event))
            said.push_back(error->message + ": " + error->description);
    });
    EXPECT_FALSE(model.mimeData({index("far.txt")}));
    ASSERT_TRUE(waitFor([&] { return !said.empty(); }));
    EXPECT_TRUE(said[0].starts_with("Failed to drag far.txt: ")) << said[0];

    // The next drag replaces the last one's folder.
    std::unique_ptr<QMimeData> again(model.mimeData({index("notes.txt")}));
    ASSERT_TRUE(again);
    EXPECT_FALSE(QFileInfo::exists(folder));
    EXPECT_TRUE(QFileInfo::exists(again->urls()[0].toLocalFile()));
}

}  // namespace
}  // namespace corvane::ui
