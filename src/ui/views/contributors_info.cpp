#include "ui/views/contributors_info.h"

#include <QApplication>
#include <QClipboard>
#include <QColor>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLineEdit>
#include <QLocale>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QShortcut>
#include <QStyle>
#include <QToolButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "app/participant_text.h"
#include "app/quoted_name.h"
#include "cloud/record_id.h"
#include "ui/core/icons.h"
#include "ui/core/launcher.h"
#include "ui/core/text.h"

namespace corvane::ui {

ContributorsInfo::ContributorsInfo(AppState& state, QWidget* parent)
    : QWidget(parent),
      openUrl([this](const QUrl& url) {
          openOutside(url, QStringLiteral("the invitation e-mail"), window());
          return true;
      }),
      state_(state),
      tableView_(new QTreeWidget(this)),
      showInviteFormButton_(new QPushButton(QStringLiteral("Invite Someone…"), this)),
      inviteForm_(new QWidget(this)),
      emailTextField_(new QLineEdit(inviteForm_)),
      inviteButton_(new QToolButton(inviteForm_)) {
    tableView_->setColumnCount(5);
    tableView_->setHeaderLabels({QStringLiteral("Name"), QStringLiteral("E-mail"),
                                 QStringLiteral("Status"), QString(), QString()});
    tableView_->setRootIsDecorated(false);
    tableView_->setUniformRowHeights(true);
    tableView_->setFrameShape(QFrame::NoFrame);
    tableView_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    // Rows with room to breathe, and action buttons that are only an ellipsis.
    tableView_->setStyleSheet(
        QStringLiteral("QTreeView::item { padding: 5px 2px; } "
                       "QToolButton::menu-indicator { image: none; }"));
    auto* header = tableView_->header();
    header->setStretchLastSection(false);
    header->setSectionResizeMode(nameColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(contactColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(statusColumn, QHeaderView::ResizeToContents);
    header->setSectionResizeMode(warningColumn, QHeaderView::ResizeToContents);
    header->setSectionResizeMode(actionColumn, QHeaderView::ResizeToContents);

    showInviteFormButton_->setFlat(true);
    showInviteFormButton_->setIcon(addIcon());
    emailTextField_->setPlaceholderText(QStringLiteral("E-mail address"));
    tableView_->setObjectName(QStringLiteral("contributors"));
    emailTextField_->setClearButtonEnabled(true);
    inviteButton_->setText(QStringLiteral("Invite"));
    inviteButton_->setPopupMode(QToolButton::InstantPopup);
    inviteButton_->setToolButtonStyle(Qt::ToolButtonTextOnly);
    inviteButton_->setEnabled(false);
    auto* inviteMenu = new QMenu(inviteButton_);
    addSharingItems(inviteMenu, [this] { return emailTextField_->text().trimmed(); });
    inviteButton_->setMenu(inviteMenu);
    auto* formRow = new QHBoxLayout(inviteForm_);
    formRow->setContentsMargins(12, 0, 12, 8);
    formRow->addWidget(emailTextField_, 1);
    formRow->addWidget(inviteButton_);
    inviteForm_->setVisible(false);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);
    layout->addWidget(tableView_, 1);
    auto* inviteRow = new QHBoxLayout;
    inviteRow->setContentsMargins(8, 0, 8, 0);
    inviteRow->addWidget(showInviteFormButton_);
    inviteRow->addStretch(1);
    layout->addLayout(inviteRow);
    layout->addWidget(inviteForm_);

    connect(emailTextField_, &QLineEdit::textChanged, this,
            [this](const QString& text) { inviteButton_->setEnabled(!text.trimmed().isEmpty()); });
    connect(showInviteFormButton_, &QPushButton::clicked, this, [this] {
        showInvitationDetails_ = !showInvitationDetails_;
        inviteForm_->setVisible(showInvitationDetails_);
        if (showInvitationDetails_) emailTextField_->setFocus();
    });
    auto* deleteKey = new QShortcut(QKeySequence::Delete, tableView_);
    deleteKey->setContext(Qt::WidgetShortcut);
    connect(deleteKey, &QShortcut::activated, this, [this] {
        if (auto* item = tableView_->currentItem())
            deleteRow(tableView_->indexOfTopLevelItem(item));
    });

    refresh();
    receiver_ = EventReceiver::registerWith(state_, [this](const Event& event) {
        const auto* modified = std::get_if<event::RepositoryModified>(&event);
        if (std::holds_alternative<event::RepositorySelected>(event) ||
            std::holds_alternative<event::ParticipantsModified>(event) ||
            (modified && modified->url == state_.selectedRepository()->url())) {
            refresh();
        }
    });
}

QToolButton* ContributorsInfo::actionButton(int row) const {
    auto* item = tableView_->topLevelItem(row);
    return item ? qobject_cast<QToolButton*>(tableView_->itemWidget(item, actionColumn)) : nullptr;
}

QUrl ContributorsInfo::invitationMail(const Repository& repository, const QString& email) {
    QString subject = QStringLiteral("You are invited to collaborate on the ") +
                      toQString(quotedName(repository.name())) + QStringLiteral(" repository");
    QByteArray link =
        repository.shareURL() ? QByteArray::fromStdString(*repository.shareURL()) : QByteArray();
    return QUrl::fromEncoded("mailto:" + QUrl::toPercentEncoding(email, "@") +
                                 "?subject=" + QUrl::toPercentEncoding(subject) +
                                 "&body=" + QUrl::toPercentEncoding(QString::fromUtf8(link)),
                             QUrl::StrictMode);
}

bool ContributorsInfo::userOwnsSelected() const {
    return state_.selectedRepository()->owner() == cloud::kCurrentUserDefaultName;
}

void ContributorsInfo::refresh() {
    shownRepository_ = state_.selectedRepository();
    shown_ = shownRepository_->participants();
    bool owner = userOwnsSelected() && !shownRepository_->id().empty();
    tableView_->clear();
    QIcon warning = style()->standardIcon(QStyle::SP_MessageBoxWarning);
    for (int row = 0; row < static_cast<int>(shown_.size()); ++row) {
        const Participant& participant = shown_[static_cast<std::size_t>(row)];
        auto* item = new QTreeWidgetItem(tableView_);
        item->setText(nameColumn, toQString(participantName(participant)));
        item->setText(contactColumn, toQString(participantContact(participant)));
        item->setText(statusColumn, toQString(participantStatus(participant)));
        // Secondary text, readable in light and dark palettes alike: the placeholder colour is
        // meant for empty fields and nearly vanishes on a dark base.
        QColor text = palette().color(QPalette::Text), base = palette().color(QPalette::Base);
        QColor secondary = QColor::fromRgbF(text.redF() * 0.65f + base.redF() * 0.35f,
                                            text.greenF() * 0.65f + base.greenF() * 0.35f,
                                            text.blueF() * 0.65f + base.blueF() * 0.35f);
        item->setForeground(contactColumn, secondary);
        item->setForeground(statusColumn, secondary);
        if (participantLacksAccount(participant)) {
            item->setIcon(warningColumn, warning);
            item->setToolTip(warningColumn,
                             QStringLiteral("User does not have a cloud store account"));
        }
        if (!owner || participant.isOwner) continue;
        auto* button = new QToolButton;
        button->setText(QStringLiteral("…"));
        button->setToolTip(QStringLiteral("Invitation and removal"));
        button->setAutoRaise(true);
        button->setPopupMode(QToolButton::InstantPopup);
        auto* menu = new QMenu(button);
        if (participant.status == Participant::Status::pending && participant.email) {
            QAction* header = menu->addAction(QStringLiteral("Resend invitation"));
            header->setEnabled(false);
            QFont bold = header->font();
            bold.setBold(true);
            header->setFont(bold);
            QString email = toQString(*participant.email);
            addSharingItems(menu, [email] { return email; });
            menu->addSeparator();
        }
        menu->addAction(QStringLiteral("Delete"), this, [this, row] { deleteRow(row); });
        button->setMenu(menu);
        tableView_->setItemWidget(item, actionColumn, button);
    }
    tableView_->scrollToTop();
    showInviteFormButton_->setVisible(owner);
    inviteForm_->setVisible(owner && showInvitationDetails_);
}

void ContributorsInfo::addSharingItems(QMenu* menu, const std::function<QString()>& email) {
    menu->addAction(QStringLiteral("Email…"), this, [this, email] { share(email(), true); });
    QAction* copy = menu->addAction(copyIcon(), QStringLiteral("Copy Link"), this,
                                    [this, email] { share(email(), false); });
    QFont bold = copy->font();
    bold.setBold(true);
    copy->setFont(bold);
}

void ContributorsInfo::share(const QString& email, bool byMail) {
    auto repository = state_.selectedRepository();
    if (!repository->shareURL()) return;
    if (byMail) {
        if (!openUrl(invitationMail(*repository, email))) return;
    } else {
        QApplication::clipboard()->setText(toQString(*repository->shareURL()));
    }
    // The link only lets in people the share lists: copying it for an address invites it too.
    if (email.isEmpty()) return;
    state_.addContributor(repository, toStdString(email));
    if (emailTextField_->text().trimmed() == email) emailTextField_->clear();  // the form's invitee
}

void ContributorsInfo::deleteRow(int row) {
    if (row < 0 || row >= static_cast<int>(shown_.size()) || !userOwnsSelected()) return;
    const Participant participant = shown_[static_cast<std::size_t>(row)];
    if (participant.isOwner) return;
    // Taking someone's access away is asked first: a stray Delete key would cost them their work.
    QString who = participant.email ? toQString(*participant.email) : QStringLiteral("this person");
    auto* confirm = new QMessageBox(
        QMessageBox::Warning, QStringLiteral("Remove Contributor"),
        QStringLiteral("Remove ") + QLocale().quoteString(who) + QStringLiteral(" from ") +
            QLocale().quoteString(toQString(shownRepository_->name())) + QStringLiteral("?"),
        QMessageBox::NoButton, window());
    confirm->setInformativeText(
        QStringLiteral("They will no longer be able to fetch or push. You can invite them again."));
    auto* remove = confirm->addButton(QStringLiteral("Remove"), QMessageBox::DestructiveRole);
    confirm->addButton(QMessageBox::Cancel);
    confirm->setDefaultButton(QMessageBox::Cancel);
    confirm->setObjectName(QStringLiteral("removeContributor"));
    confirm->setAttribute(Qt::WA_DeleteOnClose);
    confirm->setWindowModality(Qt::WindowModal);
    connect(confirm, &QMessageBox::buttonClicked, this,
            [this, remove, participant, repository = shownRepository_](QAbstractButton* button) {
                if (button == static_cast<QAbstractButton*>(remove))
                    state_.deleteContributor(repository, participant);
            });
    confirm->open();
}

}  // namespace corvane::ui
