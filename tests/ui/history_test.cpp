// The Commits, Branches and Tags tabs and the refs pop-up they share with Files.
#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QStandardItemModel>

#include "ui/core/action_row_delegate.h"
#include "ui/views/commits_info.h"
#include "ui/views/refs_list.h"
#include "ui/views/refs_popup.h"
#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;

class HistoryTest : public UiFixture {
  protected:
    // The pop-up's items as "kind:title".
    static QStringList items(const RefsPopUp& popUp) {
        QStringList shown;
        for (int row = 0; row < popUp.count(); ++row) {
            auto kind = popUp.itemData(row, RefsPopUp::kKindRole);
            if (!kind.isValid()) continue;  // a separator
            shown << QString::number(kind.toInt()) + ":" + popUp.itemText(row);
        }
        return shown;
    }
    std::vector<std::string> heads;  // the head after each selection event
    std::shared_ptr<EventReceiver> receiver;

    void recordSelections() {
        receiver = EventReceiver::registerWith(state(), [this](const Event& event) {
            if (std::holds_alternative<event::BranchSelected>(event) ||
                std::holds_alternative<event::TagSelected>(event) ||
                std::holds_alternative<event::CommitSelected>(event))
                heads.push_back(state().selectedRepository()->state().head);
        });
    }
};

TEST(CommitInfo, NamesTheAuthorAndTheCommitterOnceWhenTheyAreOne) {
    EXPECT_EQ(commitInfo("Ann", "Ann", "5 minutes ago"),
              (QStringList{"", "Ann", " committed 5 minutes ago"}));
    EXPECT_EQ(commitInfo("Bo", "Ann", ""),
              (QStringList{"", "Bo", " authored and ", "Ann", " committed"}));
    EXPECT_EQ(shortId("abc"), "abc");
    EXPECT_EQ(shortId("0123456789"), "0123456");
}

TEST_F(HistoryTest, TheHistoryFillsInAndMovesTheHeadFromEveryPlace) {
    ObjectLoader loader(state());
    CommitsInfo commits(state(), loader, nullptr);
    RefsList branches(RefsList::Kind::branches, state(), loader, nullptr);
    RefsList tags(RefsList::Kind::tags, state(), loader, nullptr);
    commits.resize(600, 400);
    commits.show();
    EXPECT_EQ(commits.model().rowCount(), 0);

    auto tools = create("tools");
    auto ids = fillHistory(tools, 4, /*uncached=*/true);
    state().selectRepository(tools->url());
    ASSERT_TRUE(waitFor([&] { return commits.model().rowCount() == 4; }));
    EXPECT_TRUE(commits.refPopUp()->isVisible());
    EXPECT_EQ(items(*commits.refPopUp()),
              (QStringList{"0:Branches", "1:first", "1:main", "0:Tags", "2:v1"}));
    EXPECT_EQ(commits.refPopUp()->currentText(), "main");
    auto* popUpModel = qobject_cast<QStandardItemModel*>(commits.refPopUp()->model());
    EXPECT_FALSE(popUpModel->item(0)->flags() & Qt::ItemIsEnabled);  // headers cannot be chosen

    // Rows show placeholders, then what their commits say; the one nowhere to be had says why.
    auto row = [&](int index) { return commits.model().index(index); };
    ASSERT_TRUE(waitFor([&] {
        for (int i = 0; i < 4; ++i) {
            if (row(i).data(ActionRowDelegate::placeholderRole).toBool()) return false;
        }
        return true;
    }));
    EXPECT_EQ(row(0).data().toString(), "Change 3");
    EXPECT_EQ(row(0).data(Qt::ToolTipRole).toString(), "Change 3\n\nWhy it changed.");
    QStringList info = row(0).data(ActionRowDelegate::infoRole).toStringList();
    ASSERT_EQ(info.size(), 5);
    EXPECT_EQ(info[1], "Bo");
    EXPECT_TRUE(info[4].startsWith(" committed on ")) << info[4].toStdString();
    EXPECT_EQ(row(1).data(ActionRowDelegate::infoRole).toStringList().size(), 3);
    EXPECT_EQ(row(3).data().toString(), "Commit " + shortId(QString::fromStdString(ids[0])));
    EXPECT_EQ(row(3).data(Qt::ToolTipRole).toString(),
              "Record " + QString::fromStdString(ids[0].substr(0, 3)) + " does not exist");

    // Branches and tags, with their ages (the annotated tag's is its tagging).
    ASSERT_EQ(branches.model()->rowCount(), 2);
    EXPECT_EQ(branches.model()->item(1)->text(), "main");
    EXPECT_EQ(branches.model()->item(1)->data(ActionRowDelegate::idRole).toString(),
              QString::fromStdString(ids.back()));
    ASSERT_TRUE(waitFor([&] {
        return !tags.model()->item(0)->data(ActionRowDelegate::infoRole).isNull() &&
               !branches.model()->item(1)->data(ActionRowDelegate::infoRole).isNull();
    }));
    EXPECT_NE(tags.model()->item(0)->data(ActionRowDelegate::infoRole),
              branches.model()->item(1)->data(ActionRowDelegate::infoRole));

    // Copying, then moving the head: a commit of the list, a tag, a branch, and the pop-up.
    recordSelections();
    commits.segmentAction(1, ActionRowDelegate::copySegment);
    EXPECT_EQ(QApplication::clipboard()->text().toStdString(), ids[2]);
    commits.segmentAction(1, ActionRowDelegate::selectSegment);
    ASSERT_TRUE(waitFor([&] { return commits.model().rowCount() == 3; }));
    EXPECT_EQ(commits.model().commits().front(), ids[2]);
    EXPECT_EQ(items(*commits.refPopUp()).mid(5),
              (QStringList{"0:Commits", "3:" + shortId(QString::fromStdString(ids[2]))}));
    EXPECT_EQ(commits.refPopUp()->currentText(), shortId(QString::fromStdString(ids[2])));
    // The narrower history says what it is, and offers the way back.
    auto* said = commits.findChild<QLabel*>("commitHead");
    auto* back = commits.findChild<QPushButton*>("backToBranch");
    ASSERT_TRUE(said && back);
    EXPECT_EQ(said->text(), "The history up to commit " + shortId(QString::fromStdString(ids[2])));
    EXPECT_EQ(back->text(), "Show main");
    EXPECT_TRUE(!said->isHidden() && !back->isHidden());

    tags.segmentAction(0, ActionRowDelegate::selectSegment);
    ASSERT_TRUE(waitFor([&] { return commits.model().rowCount() == 1; }));
    EXPECT_EQ(commits.refPopUp()->currentText(), "v1");
    EXPECT_TRUE(said->isHidden() && back->isHidden());
    branches.segmentAction(1, ActionRowDelegate::selectSegment);
    ASSERT_TRUE(waitFor([&] { return commits.model().rowCount() == 4; }));
    commits.refPopUp()->choose(1);  // "first"
    ASSERT_TRUE(waitFor([&] { return commits.model().rowCount() == 1; }));
    commits.refPopUp()->choose(0);  // a header: nothing
    EXPECT_EQ(heads, (std::vector<std::string>{ids[2], "ref: refs/tags/v1", "ref: refs/heads/main",
                                               "ref: refs/heads/first"}));

    // A push to the branch shown keeps each list's selection where it was.
    branches.segmentAction(1, ActionRowDelegate::selectSegment);
    ASSERT_TRUE(waitFor([&] { return commits.model().rowCount() == 4; }));
    commits.tableView()->setCurrentIndex(row(2));
    branches.tableView()->setCurrentIndex(branches.model()->index(1, 0));
    {
        Repository::ContentUpdate update(*tools);
        Object next(
            ObjectType::commit,
            toBytes("tree " + update.content().commits.find(ids.back())->tree + "\nparent " +
                    ids.back() + "\nauthor A <a@b> 1 +0000\ncommitter A <a@b> 1 +0000\n\nNext\n"));
        summarise(next, update.content());
        update.content().refs["refs/heads/main"] = next.id();
        state().backend().saveRepository(tools, update);
    }
    ASSERT_TRUE(waitFor([&] { return commits.model().rowCount() == 5; }));
    EXPECT_EQ(commits.tableView()->currentIndex().data(ActionRowDelegate::idRole).toString(),
              QString::fromStdString(ids[1]));
    EXPECT_EQ(branches.tableView()->currentIndex().data().toString(), "main");

    // A repository without branches has no pop-up and no history.
    auto empty = create("empty");
    state().selectRepository(empty->url());
    ASSERT_TRUE(waitFor([&] { return !commits.refPopUp()->isVisible(); }));
    EXPECT_EQ(commits.model().rowCount(), 0);
    EXPECT_EQ(branches.model()->rowCount(), 0);
}

}  // namespace
}  // namespace corvane::ui
