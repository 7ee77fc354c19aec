#include "ui/views/add_repository_dialog.h"

#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTabWidget>

#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;

TEST(AddRepositoryChecks, NamesAndLinksAreCheckedAsTheyAreTyped) {
    auto name = checkCreateName("  tools \n");
    EXPECT_EQ(name.name, "tools");
    EXPECT_EQ(name.preview, "git://localhost/tools");
    EXPECT_TRUE(name.acceptable);
    EXPECT_EQ(checkCreateName("   ").preview, "");  // only spaces: nothing to show or create
    EXPECT_FALSE(checkCreateName("   ").acceptable);
    auto slash = checkCreateName("team/project");
    EXPECT_EQ(slash.preview, "Name can not contain /");
    EXPECT_FALSE(slash.acceptable);
    for (auto [text, problem] :
         {std::pair{".", "Name can not be . or .."},
          std::pair{"one\ttwo", "Name can not contain control characters such as newlines or tabs"},
          std::pair{"one\u0085two",
                    "Name can not contain control characters such as newlines or tabs"},
          std::pair{"one\u2028two",
                    "Name can not contain control characters such as newlines or tabs"}}) {
        EXPECT_EQ(checkCreateName(QString::fromUtf8(text)).preview, problem) << text;
        EXPECT_FALSE(checkCreateName(QString::fromUtf8(text)).acceptable) << text;
    }
    EXPECT_EQ(checkCreateName(QString(300, QChar(0xe9))).preview,
              "Name can not be longer than 255 bytes");  // 600 bytes of UTF-8

    auto link = checkJoinLink(" corvane://share/4f9c#project ");
    EXPECT_TRUE(link.acceptable);
    EXPECT_TRUE(link.label.startsWith("Join repository "));
    EXPECT_TRUE(link.label.contains("project"));
    EXPECT_TRUE(link.label.endsWith("."));
    EXPECT_TRUE(checkJoinLink("corvane://share/4f9c#caf%C3%A9%20bar")
                    .label.contains(QString::fromUtf8("café bar")));
    auto bare = checkJoinLink("corvane://share/4f9c");
    EXPECT_EQ(bare.label, "Join a repository");
    EXPECT_TRUE(bare.acceptable);
    for (const char* text : {"", "not a link", "#fragment only"}) {
        EXPECT_EQ(checkJoinLink(text).label, "Join a repository") << text;
        EXPECT_FALSE(checkJoinLink(text).acceptable) << text;
    }
}

class AddRepositoryTest : public UiFixture {};

TEST_F(AddRepositoryTest, TheSheetCreatesWhatItAcceptsAndPicksUpACopiedLink) {
    QApplication::clipboard()->setText("corvane://share/abc#shared-one");
    AddRepositoryDialog join(state(), 1, nullptr);
    EXPECT_EQ(join.tabView()->currentIndex(), 1);
    EXPECT_EQ(join.joinURLField()->text(), "corvane://share/abc#shared-one");
    EXPECT_TRUE(join.joinURLLabel()->text().contains("shared-one"));
    EXPECT_EQ(join.defaultButton()->text(), "Join");

    QApplication::clipboard()->setText("https://example.com/other");
    AddRepositoryDialog create(state(), 0, nullptr);
    EXPECT_TRUE(create.joinURLField()->text().isEmpty());
    create.show();
    EXPECT_FALSE(create.createGitURLField()->isVisible());
    create.createNameField()->setText("team/project");
    EXPECT_TRUE(create.createGitURLField()->isVisible());
    EXPECT_EQ(create.createGitURLField()->text(), "Name can not contain /");
    EXPECT_FALSE(create.defaultButton()->isEnabled());
    create.createAction();  // refused: nothing happens
    EXPECT_TRUE(create.isVisible());
    create.createNameField()->setText("..");
    EXPECT_EQ(create.createGitURLField()->text(), "Name can not be . or ..");
    EXPECT_FALSE(create.defaultButton()->isEnabled());
    create.createAction();
    EXPECT_TRUE(create.isVisible());
    create.createNameField()->setText(" tools ");
    EXPECT_EQ(create.createGitURLField()->text(), "git://localhost/tools");
    create.defaultButton()->click();
    EXPECT_FALSE(create.isVisible());
    ASSERT_TRUE(waitFor([&] {
        for (const auto& [url, repository] : state().repositories()) {
            if (repository->name() == "tools" && !repository->participants().empty()) return true;
        }
        return false;
    }));
}

}  // namespace
}  // namespace corvane::ui
