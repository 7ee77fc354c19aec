// RefsPopUp: the pop-up shared by the Files and Commits views that chooses what they show:
// "Branches", then "Tags", then "Commits" (a detached head, by its short id), each under a
// header that cannot be chosen. It shows the selected repository's head; choosing a branch
// moves the head onto it (branchSelected), a tag onto the tag (tagSelected), a commit onto the
// commit (commitSelected).
//
// Threads: the GUI thread only.
#pragma once

#include <QComboBox>
#include <memory>

#include "app/app_state.h"
#include "ui/core/event_receiver.h"

class QStandardItemModel;

namespace corvane::ui {

class RefsPopUp : public QComboBox {
    Q_OBJECT
  public:
    enum Kind { header = 0, branch = 1, tag = 2, commit = 3 };
    static constexpr int kKindRole = Qt::UserRole + 1;
    static constexpr int kNameRole = Qt::UserRole + 2;

    RefsPopUp(AppState& state, QWidget* parent);

    // Lists the selected repository's references and selects its head.
    void refresh();
    // Chooses the item at `row`, as the user does.
    void choose(int row);

  private:
    void addHeader(const QString& title);
    void addItem(Kind kind, const QString& name, const QString& title);

    AppState& state_;
    QStandardItemModel* model_;
    bool refreshing_ = false;
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
