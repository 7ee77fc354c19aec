// The window around the views, the hand-over between instances, and the clone helpers found
// on the machine.
#include <QDir>
#include <QFile>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSplitter>

#include "app/elapsed_time_formatter.h"
#include "app/quoted_name.h"
#include "ui/core/locale_text.h"
#include "ui/single_instance.h"
#include "ui/views/add_repository_dialog.h"
#include "ui/views/clone_menu.h"
#include "ui/views/main_window.h"
#include "ui/views/repository_list.h"
#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;

class DesktopTest : public UiFixture {};

TEST_F(DesktopTest, TheWindowAsksBeforeDeletingAndShowsErrorsAndSheets) {
    MainWindowController window(*application, {});
    window.show();
    EXPECT_EQ(window.windowTitle(), "Corvane");
    EXPECT_FALSE(window.splitView()->childrenCollapsible());
    auto tools = create("tools");

    state().send(event::ShowConfirmDeleteRepository{tools});
    ASSERT_TRUE(waitFor([&] { return window.alert() != nullptr; }));
    EXPECT_TRUE(window.alert()->text().startsWith("Are you sure you want to delete "));
    EXPECT_TRUE(window.alert()->text().contains("tools"));
    // Cancel keeps it; Delete deletes it.
    window.alert()->button(QMessageBox::Cancel)->click();
    ASSERT_TRUE(waitFor([&] { return window.alert() == nullptr; }));
    EXPECT_EQ(state().repositories().size(), 1u);
    state().selectRepository(tools->url());
    application->deleteRepositoryMenuAction();  // the selected one
    ASSERT_TRUE(waitFor([&] { return window.alert() != nullptr; }));
    for (auto* button : window.alert()->buttons()) {
        if (button->text() == "Delete") button->click();
    }
    ASSERT_TRUE(waitFor([&] { return state().repositories().empty(); }));
    application->deleteRepositoryMenuAction();  // nothing selected: nothing asked
    QCoreApplication::processEvents();
    EXPECT_EQ(window.alert(), nullptr);

    state().send(event::ShowError{"Failed to delete 'x'", "The store is gone."});
    ASSERT_TRUE(waitFor([&] { return window.alert() != nullptr; }));
    EXPECT_EQ(window.alert()->text(), "Failed to delete 'x'");
    EXPECT_EQ(window.alert()->informativeText(), "The store is gone.");

    application->joinRepositoryMenuAction();
    ASSERT_TRUE(waitFor([&] { return window.addRepositorySheet() != nullptr; }));
    window.joinWithLink("corvane://share/abc#team");
    EXPECT_EQ(window.addRepositorySheet()->joinURLField()->text(), "corvane://share/abc#team");
    window.showServerProblem("port taken");
}

TEST(SingleInstance, ALaterInstanceHandsItsRequestToTheFirst) {
    testing::TempDir dir;
    QString path = QDir(QString::fromStdString(dir.path())).filePath("corvane.socket");
    EXPECT_FALSE(SingleInstance::handOver(path, "show"));  // nobody there

    // A socket file left by an instance that is gone is taken over.
    QFile(path).open(QIODevice::WriteOnly);
    QStringList received;
    SingleInstance first(
        path, [&](const QString& request) { received << request; }, nullptr);
    ASSERT_TRUE(first.listening());
    // The hand-over waits for the answer, which the event loop gives: run it on a thread.
    bool shown = false;
    bool joined = false;
    std::thread second([&] {
        shown = SingleInstance::handOver(path, "show");
        joined = SingleInstance::handOver(path, "corvane://share/abc#team");
    });
    EXPECT_TRUE(testing::UiFixture::waitFor([&] { return received.size() == 2; }));
    second.join();
    EXPECT_TRUE(shown);
    EXPECT_TRUE(joined);
    EXPECT_EQ(received, (QStringList{"show", "corvane://share/abc#team"}));
}

TEST(CloneApps, ClientsAreFoundByTheSchemesTheirDesktopFilesHandle) {
    testing::TempDir dir;
    QString home = QString::fromStdString(dir.path()) + "/home";
    QString system = QString::fromStdString(dir.path()) + "/system";
    QDir().mkpath(home + "/applications");
    QDir().mkpath(system + "/applications");
    auto write = [](const QString& path, const char* text) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    };
    write(system + "/applications/code-url-handler.desktop",
          "[Desktop Entry]\nName=Visual Studio Code - URL Handler\nExec=code --open-url %U\n"
          "MimeType=x-scheme-handler/vscode;\n");
    write(system + "/applications/editor.desktop",
          "[Desktop Entry]\nName=Editor\nMimeType=text/plain;x-scheme-handler/vscodium-not;\n");
    EXPECT_TRUE(installedCloneApps({home, system}).size() == 1);
    write(home + "/applications/codium.desktop",
          "[Desktop Entry]\nName=VSCodium\nMimeType=text/plain;x-scheme-handler/vscodium;\n");
    auto apps = installedCloneApps({home, system});
    ASSERT_EQ(apps.size(), 2u);
    EXPECT_EQ(apps[0].title, "Clone with Visual Studio Code");
    EXPECT_EQ(apps[1].title, "Clone with VSCodium");
    EXPECT_EQ(apps[0].cloneLink("git://localhost/my tools"),
              "vscode://vscode.git/clone?url=git%3A%2F%2Flocalhost%2Fmy%20tools");
    EXPECT_TRUE(installedCloneApps({}).empty());

    CloneMenu menu("git://localhost/tools", "tools", apps, nullptr);
    QStringList titles;
    for (auto* action : menu.actions()) {
        if (!action->isSeparator()) titles << action->text();
    }
    EXPECT_EQ(titles, (QStringList{"Clone with Visual Studio Code", "Clone with VSCodium",
                                   "Copy git clone command", "Clone into folder…"}));
}

}  // namespace
}  // namespace corvane::ui

namespace corvane::ui {
namespace {

TEST(QtLocale, NamesAndDatesInMessagesFollowTheUsersLocale) {
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    useQtLocale();
    EXPECT_EQ(quotedName("tools"), "„tools“");
    ElapsedTimeFormatter formatter("on ");
    auto date = std::chrono::sys_days{std::chrono::year{2026} / 11 / 23} + std::chrono::hours(12);
    EXPECT_EQ(formatter.string(date, date + std::chrono::days(40)), "on 23.11.26");
    EXPECT_EQ(formatter.string(date, date + std::chrono::minutes(5)), "5 minutes ago");
    setNameQuoter(nullptr);
    ElapsedTimeFormatter::setDateFormat(nullptr);
    QLocale::setDefault(QLocale::system());
}

}  // namespace
}  // namespace corvane::ui
