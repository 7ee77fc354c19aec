#include "ui/views/repository_info.h"

#include <QApplication>
#include <QClipboard>
#include <QLineEdit>
#include <QTabBar>
#include <QTabWidget>
#include <QToolButton>

#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;
using View = Repository::View;

class RepositoryInfoTest : public UiFixture {};

TEST_F(RepositoryInfoTest, TheHeaderShowsTheSelectedRepositoryAndSwitchesItsViews) {
    RepositoryInfo info(state(), {}, nullptr);
    info.show();
    EXPECT_FALSE(info.topStack()->isVisible());
    EXPECT_FALSE(info.tabView()->isVisible());

    auto tools = create("tools");
    fillHistory(tools, 5);
    auto empty = create("empty");
    state().selectRepository(tools->url());
    ASSERT_TRUE(waitFor([&] { return info.repositoryButton()->text() == "tools"; }));
    ASSERT_TRUE(waitFor([&] { return info.tabText(View::commits) == "5 Commits"; }));
    EXPECT_TRUE(info.topStack()->isVisible());
    EXPECT_EQ(info.urlField()->text(), "git://localhost/tools");
    EXPECT_EQ(info.tabText(View::files), "Files");
    EXPECT_EQ(info.tabText(View::branches), "2 Branches");
    EXPECT_EQ(info.tabText(View::tags), "1 Tag");
    EXPECT_EQ(info.tabText(View::contributors), "1 Contributor");
    EXPECT_TRUE(info.repositoryButton()->toolTip().startsWith("tools\nEstimated size: "));
    info.copyButton()->click();
    EXPECT_EQ(QApplication::clipboard()->text(), "git://localhost/tools");
    // Cloning always has our own two ways, whatever is installed.
    ASSERT_NE(info.cloneButton()->menu(), nullptr);
    EXPECT_EQ(info.cloneButton()->menu()->actions().size(), 2);

    std::vector<View> shown;
    auto receiver = EventReceiver::registerWith(state(), [&](const Event& event) {
        if (const auto* show = std::get_if<event::ShowView>(&event)) shown.push_back(show->view);
    });
    info.tabBar()->setCurrentIndex(static_cast<int>(View::contributors));
    EXPECT_EQ(state().selectedRepository()->state().selectedView, View::contributors);
    // Choosing a branch elsewhere while Contributors shows brings Files back.
    state().send(event::BranchSelected{"main"});
    ASSERT_TRUE(waitFor([&] { return shown.size() == 2; }));
    EXPECT_EQ(shown, (std::vector<View>{View::contributors, View::files}));
    EXPECT_EQ(info.tabView()->currentIndex(), static_cast<int>(View::files));
    info.tabBar()->setCurrentIndex(static_cast<int>(View::commits));
    state().send(event::TagSelected{"v1"});  // Commits stays
    info.repositoryButton()->click();        // the name shows Files
    ASSERT_TRUE(waitFor([&] { return shown.size() == 4; }));
    EXPECT_EQ(shown.back(), View::files);

    // Another repository: its own counts, singular and zero alike; its own remembered view.
    state().selectRepository(empty->url());
    ASSERT_TRUE(waitFor([&] { return info.repositoryButton()->text() == "empty"; }));
    EXPECT_EQ(info.tabText(View::commits), "0 Commits");
    EXPECT_EQ(info.tabText(View::tags), "0 Tags");
    // A name wider than the header is cut in its middle, whole in the tool tip.
    std::string longName = "start-" + std::string(200, 'x') + "-end";
    auto wide = create(longName);
    info.resize(640, 480);
    state().selectRepository(wide->url());
    ASSERT_TRUE(waitFor([&] { return info.repositoryButton()->toolTip().startsWith("start-"); }));
    auto shownName = info.repositoryButton()->text();
    EXPECT_TRUE(shownName.startsWith("start-") && shownName.endsWith("-end")) << shownName.size();
    EXPECT_TRUE(shownName.contains(QChar(0x2026)));
    EXPECT_LT(info.repositoryButton()->sizeHint().width(), info.width());
    state().selectRepository(std::nullopt);
    ASSERT_TRUE(waitFor([&] { return !info.topStack()->isVisible(); }));
}

}  // namespace
}  // namespace corvane::ui
