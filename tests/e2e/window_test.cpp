// The window as a person uses it: the built `corvane` on a real X server under a window manager,
// driven by mouse clicks and key presses, with what it shows read back through its test probe.
// Skipped where the X tools (Xvfb, openbox, xdotool) are not installed.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "e2e/git_test_repo.h"
#include "e2e/real_display.h"

namespace corvane::testing {
namespace {

std::string readText(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string screenshotPath(const std::string& name) {
    return (std::filesystem::path(CORVANE_BINARY).parent_path().parent_path() / "screenshots" /
            ("display-" + name + ".png"))
        .string();
}

TEST(Window, APersonOpensRepositoriesFilesAndLinksWithMouseAndKeys) {
    std::string why;
    if (!RealDisplay::available(why)) GTEST_SKIP() << why;
    TempDir home;
    ::chmod(home.path().c_str(), 0700);
    std::string data = home.path() + "/data";

    // A store with two repositories, one of them with a long README and a folder.
    {
        CorvaneServer server(data);
        for (const char* name : {"alpha", "beta"})
            ASSERT_EQ(server.run({CORVANE_BINARY, "create", name}).status, 0);
        std::string work = home.path() + "/work";
        std::filesystem::create_directories(work);
        sh(work,
           "git init -q -b main && { echo '# Beta'; echo; echo 'The first paragraph.'; "
           "for i in $(seq 200); do echo; echo \"Paragraph $i.\"; done; } > README.md && "
           "mkdir docs && echo '# Guide' > docs/guide.md && git add . && "
           "git commit -qm one && git tag v1.2.1.2 && git tag v1.2.10 && git tag v1.2.2 && "
           "git push -q " +
               server.url("beta") + " main --tags");
    }

    RealDisplay display;
    auto environment = display.windowEnvironment(home.path());
    environment["BROWSER"] = "false";  // no browser here
    auto window =
        std::make_unique<BackgroundProcess>(std::vector<std::string>{CORVANE_BINARY}, environment);
    Probe probe(RealDisplay::probePath(home.path()));
    probe.settle("repositories");

    // A click on a row opens that repository, as the arrow keys do.
    auto [alphaX, alphaY] = probe.row("repositories", "alpha");
    // Without --verbose the window keeps its log of cloud operations to itself.
    EXPECT_EQ(window->output().find("Fetched"), std::string::npos) << window->output();
    display.click(alphaX, alphaY);
    EXPECT_EQ(probe.waitFor("text repositoryName", "alpha"), "alpha");
    auto [betaX, betaY] = probe.row("repositories", "beta");
    display.click(betaX, betaY);
    EXPECT_EQ(probe.waitFor("text repositoryName", "beta"), "beta");

    // Its README shows under the listing from its title on.
    probe.row("files", "README.md");
    EXPECT_NE(probe
                  .waitFor("text readme",
                           [](const std::string& text) { return text.starts_with("Beta"); })
                  .find("first paragraph"),
              std::string::npos);
    EXPECT_EQ(probe.ask("scroll readme"), "0");
    display.screenshot(screenshotPath("files"));

    // A double-click opens a folder; Alt+Left goes back.
    auto [docsX, docsY] = probe.row("files", "docs");
    display.click(docsX, docsY, 2);
    probe.row("files", "guide.md");
    display.key("alt+Left");
    EXPECT_NE(probe.waitFor("row files README.md",
                            [](const std::string& answer) { return answer != "none"; }),
              "none");
    // The mouse's forward and back buttons do the same.
    auto [listX, listY] = probe.row("files", "README.md");
    display.click(listX, listY, 1, 9);
    probe.row("files", "guide.md");
    display.click(listX, listY, 1, 8);
    probe.row("files", "README.md");

    // A folder dragged onto a file manager arrives there whole.
    {
        std::string dropped = home.path() + "/dropped";
        std::filesystem::create_directories(dropped);
        BackgroundProcess target({CORVANE_DROP_TARGET, dropped}, environment);
        std::string where, last;
        for (int i = 0; i < 100 && (where.empty() || where != last); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            last = where;
            where = readText(dropped + "/.where");
        }
        int targetX = 0, targetY = 0;
        ASSERT_EQ(std::sscanf(where.c_str(), "%d %d", &targetX, &targetY), 2) << where;
        auto [docsAgainX, docsAgainY] = probe.row("files", "docs");
        display.drag(docsAgainX, docsAgainY, targetX, targetY);
        for (int i = 0; i < 100 && !std::filesystem::exists(dropped + "/.dropped"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(readText(dropped + "/.dropped"), "docs\n");
        EXPECT_EQ(readText(dropped + "/docs/guide.md"), "# Guide\n");
    }

    // A preview opens at the document's title and takes the keyboard: Page Down scrolls it,
    // Escape closes it.
    auto [readmeX, readmeY] = probe.row("files", "README.md");
    display.click(readmeX, readmeY, 2);
    EXPECT_NE(probe.waitFor("scroll markdownPreview",
                            [](const std::string& answer) { return answer != "none"; }),
              "none");
    EXPECT_EQ(probe.ask("scroll markdownPreview"), "0");
    EXPECT_EQ(probe.waitFor("focus", "markdownPreview"), "markdownPreview");
    display.screenshot(screenshotPath("preview"));
    display.key("Next");
    EXPECT_NE(probe.waitFor("scroll markdownPreview",
                            [](const std::string& answer) { return answer != "0"; }),
              "0");
    display.key("Escape");
    EXPECT_EQ(probe.waitFor("scroll markdownPreview", "none"), "none");

    // Every kind of row answers the mouse and the keyboard: tags, newest release first, open
    // with Enter, branches with a double-click, each showing Files; commits and people select.
    auto clickTab = [&](const std::string& text) {
        auto [x, y] = probe.tab(text);
        display.click(x, y);
    };
    clickTab("Tags");
    EXPECT_EQ(probe.waitFor("rows tags", "v1.2.10\tv1.2.2\tv1.2.1.2"), "v1.2.10\tv1.2.2\tv1.2.1.2");
    auto [tagX, tagY] = probe.row("tags", "v1.2.2");
    display.click(tagX, tagY);
    display.key("Return");
    EXPECT_EQ(probe.waitFor("current views", "Files"), "Files");
    clickTab("Branch");
    auto [branchX, branchY] = probe.row("branches", "main");
    display.click(branchX, branchY, 2);
    EXPECT_EQ(probe.waitFor("current views", "Files"), "Files");
    clickTab("Commit");
    auto [commitX, commitY] = probe.row("commits", "one");
    display.click(commitX, commitY);
    EXPECT_EQ(probe.waitFor("selected commits", "one"), "one");
    // Its short id shows the history up to it, says so, and offers the way back.
    auto [idX, idY] = probe.point("segment commits one");
    display.click(idX, idY);
    EXPECT_TRUE(probe
                    .waitFor("text commitHead",
                             [](const std::string& text) {
                                 return text.starts_with("The history up to commit ");
                             })
                    .starts_with("The history up to commit "));
    EXPECT_EQ(probe.ask("text backToBranch"), "Show main");
    auto [backX, backY] = probe.point("centre backToBranch");
    display.click(backX, backY);
    EXPECT_EQ(probe.waitFor("text commitHead", "none"), "none");
    clickTab("Contributor");
    auto people = probe.waitFor("rows contributors",
                                [](const std::string& a) { return !a.empty() && a != "none"; });
    auto [personX, personY] = probe.row("contributors", people.substr(0, people.find('\t')));
    display.click(personX, personY);
    EXPECT_EQ(probe.waitFor("selected contributors", people), people);
    display.screenshot(screenshotPath("contributors"));
    clickTab("Files");

    // The keyboard's way through the whole window, from the list: the name, the clone URL, its
    // copy button, the clone menu, the tabs, the pop-up and the path over the listing, the
    // listing, the README, and round to the list.
    auto [focusX, focusY] = probe.row("repositories", "beta");
    display.click(focusX, focusY);
    EXPECT_EQ(probe.waitFor("focus", "repositories"), "repositories");
    for (const char* next : {"repositoryName", "cloneUrl", "copyUrl", "clone", "views", "refs",
                             "pathComponent", "files", "readme", "addRepository", "repositories"}) {
        display.key("Tab");
        EXPECT_EQ(probe.waitFor("focus", next), next);
    }

    // The add row answers the keyboard: from the list, End and Enter open the sheet.
    auto [rowX, rowY] = probe.row("repositories", "beta");
    display.click(rowX, rowY);
    display.key("End");
    display.key("Return");
    EXPECT_TRUE(probe.showsDialog("Add Repository"));
    display.key("Escape");
    EXPECT_EQ(probe.waitFor("dialogs", "none"), "none");
    EXPECT_EQ(probe.ask("selected repositories"), "beta");

    // A link the desktop cannot open is said, with the link kept for the person.
    display.key("alt+h");
    display.key("w");
    EXPECT_TRUE(probe.showsDialog("Could not open the website"));
    display.key("Return");
    EXPECT_EQ(probe.waitFor("dialogs", "none"), "none");

    // A link that opens nothing leaves the window as it was once the failure is said.
    auto handed = runCommand(
        {"timeout", "20", CORVANE_BINARY, "corvane://share/00000000000000000000000000000000#ghost"},
        environment);
    EXPECT_EQ(handed.status, 0) << handed.out;
    probe.waitFor("focus", [](const std::string& focus) { return focus != "none"; });
    display.key("Return");
    EXPECT_TRUE(probe.showsDialog("Failed to join repository"));
    display.screenshot(screenshotPath("failed-join"));
    display.key("Return");
    EXPECT_EQ(probe.waitFor("dialogs", "none"), "none");
    EXPECT_EQ(probe.waitFor("row repositories ghost", "none"), "none");
    EXPECT_EQ(probe.ask("text repositoryName"), "beta");
    EXPECT_EQ(probe.ask("selected repositories"), "beta");

    // A repository another program creates shows up by itself.
    auto created = runCommand({CORVANE_BINARY, "create", "gamma"}, environment);
    EXPECT_EQ(created.status, 0) << created.out;
    EXPECT_NE(probe.waitFor("row repositories gamma",
                            [](const std::string& answer) { return answer != "none"; }),
              "none");

    // Without a tray, closing the window would stop the daemon: that is asked, and Cancel keeps
    // the window.
    display.key("ctrl+w");
    EXPECT_TRUE(probe.showsDialog("stops the git daemon"));
    display.key("Escape");
    EXPECT_EQ(probe.waitFor("dialogs", "none"), "none");
    EXPECT_EQ(probe.ask("text repositoryName"), "beta");

    // Quit and start again: the window opens as it was left.
    display.key("ctrl+q");
    EXPECT_EQ(window->wait(), 0) << window->output();
    window =
        std::make_unique<BackgroundProcess>(std::vector<std::string>{CORVANE_BINARY}, environment);
    EXPECT_EQ(probe.waitFor("text repositoryName", "beta"), "beta");
    EXPECT_EQ(probe.waitFor("selected repositories", "beta"), "beta");
}

// In a dark palette (GTK's dark Adwaita, as GNOME users have it) every column of a row is
// readable: an invitation's address and status too.
TEST(Window, ADarkPaletteKeepsEveryColumnReadable) {
    std::string why;
    if (!RealDisplay::available(why)) GTEST_SKIP() << why;
    if (runCommand({"sh", "-c", "ls /usr/lib/*/qt6/plugins/platformthemes/libqgtk3.so"}).status !=
        0)
        GTEST_SKIP() << "Qt's GTK platform theme is not installed";
    TempDir home;
    ::chmod(home.path().c_str(), 0700);
    RealDisplay display;
    auto environment = display.windowEnvironment(home.path());
    environment["QT_QPA_PLATFORMTHEME"] = "gtk3";
    environment["GTK_THEME"] = "Adwaita:dark";
    for (const auto& args : std::vector<std::vector<std::string>>{
             {CORVANE_BINARY, "create", "shared"},
             {CORVANE_BINARY, "invite", "shared", "bob@example.com"}}) {
        auto result = runCommand(args, environment);
        ASSERT_EQ(result.status, 0) << result.out;
    }
    BackgroundProcess window({CORVANE_BINARY}, environment);
    Probe probe(RealDisplay::probePath(home.path()));
    probe.settle("repositories");
    auto [x, y] = probe.row("repositories", "shared");
    display.click(x, y);
    auto [tabX, tabY] = probe.tab("Contributors");
    display.click(tabX, tabY);
    probe.row("contributors", "bob@example.com");
    auto contrast = std::stod(probe.ask("contrast contributors bob@example.com"));
    EXPECT_GE(contrast, 4.5) << "the invitation's row is hard to read";
    display.screenshot(screenshotPath("dark-contributors"));
}

}  // namespace
}  // namespace corvane::testing
