// ContributorsInfo: the Contributors tab. One row per participant of the selected repository:
// the name, the e-mail address beside a name, the status, a warning mark for an address nobody
// in the store has yet, and for the owner's own view an action button ("Resend invitation" to a
// pending person, then "Delete"); the Delete key removes the current row the same way. Under the
// list, the owner opens an invite form: an e-mail field and an Invite button that writes the
// invitation in the mail client or copies the share link, and lists the person as pending.
//
// Threads: the GUI thread only.
#pragma once

#include <QUrl>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "ui/core/event_receiver.h"

class QLineEdit;
class QMenu;
class QPushButton;
class QToolButton;
class QTreeWidget;

namespace corvane::ui {

class ContributorsInfo : public QWidget {
    Q_OBJECT
  public:
    enum Column { nameColumn, contactColumn, statusColumn, warningColumn, actionColumn };

    ContributorsInfo(AppState& state, QWidget* parent);

    // How a mailto: link reaches the mail client; tests replace it. True when it was handed on.
    std::function<bool(const QUrl&)> openUrl;

    QTreeWidget* tableView() const { return tableView_; }
    // The row's action button, when it has one.
    QToolButton* actionButton(int row) const;
    QPushButton* showInviteFormButton() const { return showInviteFormButton_; }
    QWidget* inviteForm() const { return inviteForm_; }
    QLineEdit* emailTextField() const { return emailTextField_; }
    QToolButton* inviteButton() const { return inviteButton_; }

    // The invitation's mail: to the address, with the subject and the share link as body.
    static QUrl invitationMail(const Repository& repository, const QString& email);

  private:
    void refresh();
    // The sharing items (mail, copy link) for `email`, each inviting the address once done.
    void addSharingItems(QMenu* menu, const std::function<QString()>& email);
    void share(const QString& email, bool byMail);
    void deleteRow(int row);
    bool userOwnsSelected() const;

    AppState& state_;
    // What the rows show, in row order: the repository and its participants when last listed.
    std::shared_ptr<Repository> shownRepository_;
    std::vector<Participant> shown_;
    QTreeWidget* tableView_;
    QPushButton* showInviteFormButton_;
    QWidget* inviteForm_;
    QLineEdit* emailTextField_;
    QToolButton* inviteButton_;
    bool showInvitationDetails_ = false;
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
