#include "ui/views/contributors_info.h"

#include <QAbstractButton>
#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QToolButton>
#include <QTreeWidget>
#include <QUrlQuery>

#include "cloud/cloud_location.h"
#include "ui/core/contrast.h"
#include "ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::UiFixture;

class ContributorsTest : public UiFixture {
  protected:
    // Another person of the same store file, made with their name.
    std::unique_ptr<cloud::Container> person(const std::string& email, const char* given) {
        auto location = cloud::cloudLocation();
        return cloud::Container::open(
            location.databaseFile, {location.assetCacheDirectory,
                                    {email, cloud::NameComponents{given, std::string("Tester")}}});
    }
    static QStringList row(const ContributorsInfo& view, int index) {
        auto* item = view.tableView()->topLevelItem(index);
        if (!item) return {};
        return {item->text(ContributorsInfo::nameColumn),
                item->text(ContributorsInfo::contactColumn),
                item->text(ContributorsInfo::statusColumn)};
    }
    static QAction* menuItem(QToolButton* button, const QString& text) {
        if (!button || !button->menu()) return nullptr;
        for (QAction* action : button->menu()->actions()) {
            if (action->text() == text) return action;
        }
        return nullptr;
    }
};

TEST_F(ContributorsTest, TheOwnerInvitesResendsAndRemovesAndEachChangeReachesTheStore) {
    auto ada = person("ada@example.com", "Ada");
    auto tools = create("tools");
    fillHistory(tools, 2);  // a pushed repository: its record names files of the push
    ContributorsInfo view(state(), nullptr);
    std::vector<QUrl> mails;
    view.openUrl = [&](const QUrl& url) {
        mails.push_back(url);
        return true;
    };
    view.show();
    state().selectRepository(tools->url());
    ASSERT_TRUE(waitFor([&] { return view.tableView()->topLevelItemCount() == 1; }));
    EXPECT_EQ(row(view, 0)[2], "owner");
    EXPECT_EQ(view.actionButton(0), nullptr);

    // The form's button waits for an address; mailing the invitation lists the person at once.
    view.showInviteFormButton()->click();
    EXPECT_TRUE(view.inviteForm()->isVisible());
    EXPECT_FALSE(view.inviteButton()->isEnabled());
    view.emailTextField()->setText(QStringLiteral("ada@example.com"));
    EXPECT_TRUE(view.inviteButton()->isEnabled());
    view.inviteButton()->menu()->actions().at(0)->trigger();  // "Email…"
    ASSERT_EQ(mails.size(), 1u);
    EXPECT_EQ(mails[0].scheme(), "mailto");
    EXPECT_EQ(mails[0].path(), "ada@example.com");
    QUrlQuery query(mails[0]);
    EXPECT_EQ(query.queryItemValue("subject", QUrl::FullyDecoded),
              "You are invited to collaborate on the 'tools' repository");
    std::string link = *state().selectedRepository()->shareURL();
    EXPECT_EQ(query.queryItemValue("body", QUrl::FullyDecoded).toStdString(), link);
    EXPECT_TRUE(waitFor([&] { return view.tableView()->topLevelItemCount() == 2; }));
    EXPECT_TRUE(view.emailTextField()->text().isEmpty());

    // Copying the link for an address nobody has yet invites it too, with the warning mark.
    view.emailTextField()->setText(QStringLiteral("cy@example.com"));
    auto* copy = view.inviteButton()->menu()->actions().at(1);
    EXPECT_EQ(copy->text(), "Copy Link");
    EXPECT_TRUE(copy->font().bold());
    copy->trigger();
    EXPECT_EQ(QApplication::clipboard()->text().toStdString(), link);
    // Both invitations were saved at once; the stored list (which alone carries the mark)
    // ends with both.
    ASSERT_TRUE(waitFor([&] {
        return view.tableView()->topLevelItemCount() == 3 &&
               row(view, 1) == QStringList{"Ada Tester", "ada@example.com", "pending"} &&
               row(view, 2) == QStringList{"cy@example.com", "", "pending"} &&
               view.tableView()->topLevelItem(2)->toolTip(ContributorsInfo::warningColumn) ==
                   "User does not have a cloud store account";
    }));
    EXPECT_TRUE(
        view.tableView()->topLevelItem(1)->toolTip(ContributorsInfo::warningColumn).isEmpty());

    // Resending from a pending row's menu mails again and adds no row.
    QToolButton* adaActions = view.actionButton(1);
    ASSERT_NE(adaActions, nullptr);
    EXPECT_EQ(adaActions->menu()->actions().at(0)->text(), "Resend invitation");
    menuItem(adaActions, QStringLiteral("Email…"))->trigger();
    ASSERT_EQ(mails.size(), 2u);
    EXPECT_EQ(mails[1].path(), "ada@example.com");
    ada->acceptShare(ada->fetchShareMetadata(link, false));
    state().reloadRepository(state().selectedRepository());
    ASSERT_TRUE(waitFor([&] { return row(view, 1).value(2) == "accepted"; }));
    EXPECT_EQ(view.tableView()->topLevelItemCount(), 3);
    EXPECT_EQ(menuItem(view.actionButton(1), QStringLiteral("Resend invitation")), nullptr);

    // The Delete key removes the current row; the menu's Delete removes another.
    view.tableView()->setCurrentItem(view.tableView()->topLevelItem(2));
    view.tableView()->setFocus();
    QKeyEvent press(QEvent::KeyPress, Qt::Key_Delete, Qt::NoModifier);
    QKeyEvent release(QEvent::KeyRelease, Qt::Key_Delete, Qt::NoModifier);
    // Each removal is asked first: Remove removes the person, Cancel keeps them.
    auto answer = [&](bool remove) {
        QMessageBox* confirm = nullptr;
        EXPECT_TRUE(waitFor([&] {
            for (auto* widget : QApplication::topLevelWidgets()) {
                auto* box = qobject_cast<QMessageBox*>(widget);
                if (box && box->isVisible() &&
                    box->objectName() == QStringLiteral("removeContributor"))
                    confirm = box;
            }
            return confirm != nullptr;
        }));
        if (!confirm) return;
        for (auto* button : confirm->buttons()) {
            bool removes = confirm->buttonRole(button) == QMessageBox::DestructiveRole;
            if (removes == remove) button->click();
        }
    };
    QApplication::sendEvent(view.tableView(), &press);
    QApplication::sendEvent(view.tableView(), &release);
    answer(true);
    ASSERT_TRUE(waitFor([&] { return view.tableView()->topLevelItemCount() == 2; }));
    menuItem(view.actionButton(1), QStringLiteral("Delete"))->trigger();
    answer(false);
    QApplication::processEvents();
    EXPECT_EQ(view.tableView()->topLevelItemCount(), 2);
    menuItem(view.actionButton(1), QStringLiteral("Delete"))->trigger();
    answer(true);
    ASSERT_TRUE(waitFor([&] { return view.tableView()->topLevelItemCount() == 1; }));
    // The store lets her in no more, and the list, read again after the saves, agrees.
    EXPECT_TRUE(waitFor([&] { return ada->sharedCloudDatabase().fetchAllRecordZones().empty(); }));
    state().reloadRepository(state().selectedRepository());
    EXPECT_TRUE(waitFor(
        [&] { return state().selectedRepository()->share()->share->participants.size() == 1; }));
}

TEST_F(ContributorsTest, SomeoneElsesRepositoryShowsItsPeopleWithoutActions) {
    auto tools = create("tools");
    auto bo = person("bo@example.com", "Bo");
    state().addContributor(tools, "bo@example.com");
    ASSERT_TRUE(waitFor([&] {
        auto participants = state().repositories().at(tools->url())->participants();
        return participants.size() == 2 && participants[1].shareParticipant;
    }));
    bo->acceptShare(bo->fetchShareMetadata(*tools->shareURL(), false));

    LoopMainQueue boQueue;
    AppState boState(boQueue, std::move(bo), dir.path() + "/bo-cache");
    std::vector<std::shared_ptr<Repository>> listed;
    boState.backend().fetchRepositories([&](auto result) { listed = result.value(); });
    ASSERT_TRUE(waitFor([&] {
        boQueue.drain();
        return !listed.empty();
    }));
    ASSERT_EQ(listed.size(), 1u);
    boState.updateRepository(listed[0]);
    boState.selectRepository(listed[0]->url());
    // A dark palette that says nothing of the placeholder colour, as many themes leave it: the
    // secondary columns must not be drawn in it.
    QPalette light = QApplication::palette();
    QPalette dark = light;
    dark.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x1e));
    dark.setColor(QPalette::Text, QColor(0xe6, 0xe6, 0xe6));
    QApplication::setPalette(dark);
    ContributorsInfo view(boState, nullptr);
    view.show();
    boQueue.drain();
    ASSERT_EQ(view.tableView()->topLevelItemCount(), 2);
    EXPECT_EQ(row(view, 1), (QStringList{"Bo Tester", "bo@example.com", "accepted"}));
    EXPECT_EQ(view.actionButton(1), nullptr);
    EXPECT_FALSE(view.showInviteFormButton()->isVisible());
    for (int column = 0; column < 3; ++column) {
        auto brush = view.tableView()->topLevelItem(1)->foreground(column);
        QColor text = brush.style() == Qt::NoBrush ? dark.color(QPalette::Text) : brush.color();
        EXPECT_GE(contrastRatio(text, dark.color(QPalette::Base)), 4.5) << column;
    }
    QApplication::setPalette(light);
}

}  // namespace
}  // namespace corvane::ui
