#include "ui/views/repository_list.h"

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>

#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;

class RepositoryListTest : public UiFixture {
  protected:
    QString status() const { return list->statusTextField()->text(); }
    QStringList names() const {
        QStringList shown;
        for (const auto& repository : list->model().repositories())
            shown << QString::fromStdString(repository->name());
        return shown;
    }
    QModelIndex row(int index) const { return list->model().index(index); }

    std::unique_ptr<RepositoryList> list;
};

TEST_F(RepositoryListTest, RowsFollowTheRepositoriesInNameOrderWithTheirStatus) {
    list = std::make_unique<RepositoryList>(state(), nullptr);
    list->setFollowInterval(0);  // the rows below are shaped by hand, not read from the store
    EXPECT_EQ(status(), "Loading repositories…");
    EXPECT_TRUE(list->progressIndicator()->isVisibleTo(list.get()));
    list->show();  // loads the list
    ASSERT_TRUE(waitFor([&] { return status() == "0 Repositories"; }));
    EXPECT_FALSE(list->progressIndicator()->isVisibleTo(list.get()));
    // Only the add row, which cannot be selected and whose button asks for the add sheet.
    ASSERT_EQ(list->model().rowCount(), 1);
    EXPECT_FALSE(list->model().flags(row(0)) & Qt::ItemIsSelectable);

    create("tools");
    EXPECT_EQ(status(), "1 Repository");
    create("alpha");
    create("web");
    EXPECT_EQ(names(), (QStringList{"alpha", "tools", "web"}));
    EXPECT_EQ(status(), "3 Repositories");
    // A repository just added is selected, here and in the state.
    EXPECT_EQ(list->tableView()->currentIndex().row(), 2);
    EXPECT_EQ(state().selectedRepository()->name(), "web");

    // Dates for created repositories; "Creating…" while one has no share yet; the shared mark
    // from two participants on.
    EXPECT_EQ(list->model().data(row(0), RepositoryListModel::statusRole).toString(), "just now");
    EXPECT_FALSE(list->model().data(row(0), RepositoryListModel::sharedRole).toBool());
    state().send(event::RepositoryAdded{std::make_shared<Repository>("beta")});
    ASSERT_TRUE(waitFor([&] { return names().contains("beta"); }))
        << names().join(",").toStdString();
    EXPECT_EQ(list->model().data(row(1), RepositoryListModel::statusRole).toString(), "Creating…");
    auto alpha = state().repositories().at(list->model().repositories()[0]->url());
    auto people = alpha->participants();
    people.push_back(Participant{});
    alpha->setParticipants(people);
    state().send(event::RepositoryModified{alpha->url()});
    ASSERT_TRUE(waitFor(
        [&] { return list->model().data(row(0), RepositoryListModel::sharedRole).toBool(); }));

    // Selection from the state and back; clearing it; the add row's button.
    state().selectRepository(alpha->url());
    ASSERT_TRUE(waitFor([&] { return list->tableView()->currentIndex().row() == 0; }));
    list->tableView()->selectionModel()->setCurrentIndex(row(2),
                                                         QItemSelectionModel::ClearAndSelect);
    EXPECT_EQ(state().selectedRepository()->name(), "tools");
    // Two selections before their events arrive: the last one holds, and the row and the state
    // settle on it instead of chasing each other.
    QTest::qWait(20);  // the events of the selection above
    int selections = 0;
    auto counter = EventReceiver::registerWith(state(), [&](const Event& event) {
        selections += std::holds_alternative<event::RepositorySelected>(event);
    });
    state().selectRepository(alpha->url());
    state().selectRepository(list->model().repositories()[3]->url());
    ASSERT_TRUE(waitFor([&] { return selections >= 2; }));
    QTest::qWait(50);
    EXPECT_EQ(selections, 2);
    EXPECT_EQ(state().selectedRepository()->name(), "web");
    EXPECT_EQ(list->tableView()->currentIndex().row(), 3);
    state().selectRepository(std::nullopt);
    ASSERT_TRUE(waitFor([&] { return !list->tableView()->selectionModel()->hasSelection(); }));
    std::size_t shown = 0;
    auto receiver = EventReceiver::registerWith(state(), [&](const Event& event) {
        shown += std::holds_alternative<event::ShowCreateRepository>(event) ||
                 std::holds_alternative<event::ShowConfirmDeleteRepository>(event);
    });
    auto* button = list->tableView()->indexWidget(row(4))->findChild<QPushButton*>();
    ASSERT_NE(button, nullptr);
    button->click();
    // Delete on a selected row asks to delete it.
    list->tableView()->selectionModel()->setCurrentIndex(row(0),
                                                         QItemSelectionModel::ClearAndSelect);
    QTest::keyClick(list->tableView(), Qt::Key_Delete);
    ASSERT_TRUE(waitFor([&] { return shown == 2; }));

    // A deleted repository leaves, and the reload after it shows what the store holds (the
    // placeholder that never reached it goes too).
    state().deleteRepository(list->model().repositories()[2]->url());
    ASSERT_TRUE(waitFor([&] { return status() == "2 Repositories"; })) << status().toStdString();
    EXPECT_EQ(names(), (QStringList{"alpha", "web"}));

    state().send(event::ShowSignedOut{});
    ASSERT_TRUE(waitFor([&] { return status() == "Signed Out"; }));
}

}  // namespace
}  // namespace corvane::ui
