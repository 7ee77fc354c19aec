// The window around the views, the hand-over between instances, and the clone helpers found
// on the machine.
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSplitter>
#include <future>
#include <optional>

#include "app/elapsed_time_formatter.h"
#include "app/quoted_name.h"
#include "support/error_message.h"
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

    // Errors wait their turn: a second one does not close the first unread.
    state().send(event::ShowError{"Failed to delete 'x'", "The store is gone."});
    state().send(event::ShowError{"Failed to create 'y'", "Still gone."});
    ASSERT_TRUE(waitFor([&] { return window.alert() != nullptr; }));
    QCoreApplication::processEvents();
    EXPECT_EQ(window.alert()->text(), "Failed to delete 'x'");
    EXPECT_EQ(window.alert()->informativeText(), "The store is gone.");
    window.alert()->button(QMessageBox::Ok)->click();
    ASSERT_TRUE(waitFor(
        [&] { return window.alert() && window.alert()->text() == "Failed to create 'y'"; }));
    window.alert()->button(QMessageBox::Ok)->click();
    ASSERT_TRUE(waitFor([&] { return window.alert() == nullptr; }));

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

// Sets an environment variable (nullptr: unsets it) and puts the old value back.
class ScopedEnvironment {
  public:
    ScopedEnvironment(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnvironment() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST(SingleInstance, TheSocketLivesOnlyInAFolderNobodyElseCanReach) {
    testing::TempDir dir;
    std::string runtime = dir.path() + "/runtime";
    ASSERT_EQ(::mkdir(runtime.c_str(), 0700), 0);
    auto socketPath = [] { return SingleInstance::socketPath().toStdString(); };
    {
        ScopedEnvironment xdg("XDG_RUNTIME_DIR", runtime.c_str());
        EXPECT_EQ(socketPath(), runtime + "/corvane.socket");
        ASSERT_EQ(::chmod(runtime.c_str(), 0750), 0);
        EXPECT_EQ(testing::errorMessage(socketPath),
                  "The folder " + runtime +
                      " ($XDG_RUNTIME_DIR) is open to other users; Corvane keeps its socket "
                      "only in a folder of yours alone");
    }

    // Without a runtime folder, a folder of its own in the temporary folder, which anybody may
    // have made first under that name.
    ScopedEnvironment xdg("XDG_RUNTIME_DIR", nullptr);
    ScopedEnvironment tmp("TMPDIR", dir.path().c_str());
    std::string own = dir.path() + "/corvane-" + std::to_string(::geteuid());
    EXPECT_EQ(socketPath(), own + "/corvane.socket");
    struct stat status {};
    ASSERT_EQ(::lstat(own.c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0700u);
    EXPECT_EQ(socketPath(), own + "/corvane.socket");  // found again
    ASSERT_EQ(::chmod(own.c_str(), 0777), 0);
    EXPECT_EQ(testing::errorMessage(socketPath),
              "The folder " + own +
                  " is open to other users; Corvane keeps its socket only in a folder of yours "
                  "alone");
    ASSERT_EQ(::rmdir(own.c_str()), 0);
    ASSERT_EQ(::symlink(runtime.c_str(), own.c_str()), 0);  // to a folder that is private
    EXPECT_EQ(testing::errorMessage(socketPath),
              "The folder " + own +
                  " is a symbolic link; Corvane keeps its socket only in a folder of yours alone");
    ASSERT_EQ(::unlink(own.c_str()), 0);
    if (::geteuid() != 0) return;  // only root can make a folder that is another user's
    ASSERT_EQ(::mkdir(own.c_str(), 0700), 0);
    ASSERT_EQ(::chown(own.c_str(), 65534, 65534), 0);
    EXPECT_EQ(testing::errorMessage(socketPath),
              "The folder " + own +
                  " belongs to another user; Corvane keeps its socket only in a folder of yours "
                  "alone");
}

// Another account, "nobody", run with runuser: needs root.
bool canRunAsNobody() {
    return ::geteuid() == 0 &&
           testing::runCommand({"runuser", "-u", "nobody", "--", "true"}).status == 0;
}

TEST(SingleInstance, NeitherEndTalksToAnotherUser) {
    if (!canRunAsNobody()) GTEST_SKIP() << "needs root and runuser to act as another account";
    testing::TempDir dir;
    // With the folder's guard gone, the kernel's word on the peer is what is left.
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    QString path = QDir(QString::fromStdString(dir.path())).filePath("corvane.socket");
    QStringList received;
    SingleInstance first(
        path, [&](const QString& request) { received << request; }, nullptr);
    ASSERT_TRUE(first.listening());
    ASSERT_EQ(::chmod(path.toLocal8Bit().constData(), 0777), 0);
    auto theirs = std::async(std::launch::async, [&] {
        return testing::runCommand({"runuser", "-u", "nobody", "--", "python3", "-c",
                                    "import socket, sys\n"
                                    "s = socket.socket(socket.AF_UNIX)\n"
                                    "s.settimeout(3)\n"
                                    "s.connect(sys.argv[1])\n"
                                    "s.sendall(b'corvane://share/planted#tools\\n')\n"
                                    "try:\n"
                                    "    print('answer:', s.recv(100))\n"
                                    "except OSError as error:\n"
                                    "    print('answer:', error)\n",
                                    path.toStdString()});
    });
    ASSERT_TRUE(testing::UiFixture::waitFor(
        [&] { return theirs.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    auto answer = theirs.get();
    EXPECT_EQ(answer.out.find("b'ok"), std::string::npos) << answer.out;
    QCoreApplication::processEvents();
    EXPECT_TRUE(received.isEmpty()) << received.join(" ").toStdString();

    // A window of another user's listening where ours would be is not handed the request.
    std::string shared = dir.path() + "/theirs";
    ASSERT_EQ(::mkdir(shared.c_str(), 0777), 0);
    ASSERT_EQ(::chmod(shared.c_str(), 0777), 0);
    std::string socket = shared + "/corvane.socket";
    testing::BackgroundProcess listener({"runuser", "-u", "nobody", "--", "python3", "-c",
                                         "import socket, sys\n"
                                         "s = socket.socket(socket.AF_UNIX)\n"
                                         "s.bind(sys.argv[1])\n"
                                         "s.listen(1)\n"
                                         "print('listening', flush=True)\n"
                                         "c, _ = s.accept()\n"
                                         "c.settimeout(3)\n"
                                         "try:\n"
                                         "    data = c.recv(1000)\n"
                                         "    c.sendall(b'ok\\n')\n"
                                         "except OSError:\n"
                                         "    data = b''\n"
                                         "print('received:', data, flush=True)\n",
                                         socket});
    ASSERT_TRUE(listener.waitForOutput("listening")) << listener.output();
    EXPECT_FALSE(
        SingleInstance::handOver(QString::fromStdString(socket), "corvane://share/secret#tools"));
    EXPECT_EQ(listener.wait(), 0);
    EXPECT_EQ(listener.output().find("secret"), std::string::npos) << listener.output();
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
    // Beyond a month, the date in the middle form the locale writes it in, never as a code.
    EXPECT_EQ(formatter.string(date, date + std::chrono::days(40)), "on 23. Nov. 2026");
    EXPECT_EQ(formatter.string(date, date + std::chrono::minutes(5)), "5 minutes ago");
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    EXPECT_EQ(formatter.string(date, date + std::chrono::days(40)), "on Nov 23, 2026");
    setNameQuoter(nullptr);
    ElapsedTimeFormatter::setDateFormat(nullptr);
    QLocale::setDefault(QLocale::system());
}

}  // namespace
}  // namespace corvane::ui
