// CommitsInfo: the Commits tab. The refs pop-up, and the first-parent history of the head, one
// row per commit: its title (the whole message as tool tip), who authored and committed it and
// how long ago, and the control that copies its id or moves the head onto it. A commit not read
// yet shows as a placeholder and is loaded, from the cloud if need be, when its row is drawn.
// While the head is a commit rather than a branch or tag, a line above the history says so,
// with a button back to the branch or tag shown before (else the one a clone starts on).
//
// Threads: the GUI thread only; commits are read by the ObjectLoader.
#pragma once

#include <QAbstractListModel>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/app_state.h"
#include "app/elapsed_time_formatter.h"
#include "ui/core/event_receiver.h"
#include "ui/core/object_loader.h"
#include "ui/core/view_place.h"

class QLabel;
class QListView;
class QPushButton;

namespace corvane::ui {

class RefsPopUp;

// What a row shows of a commit once it is read.
struct CommitRow {
    QString title;
    QString message;
    QStringList info;  // runs, plain and bold alternating
};

class CommitsModel : public QAbstractListModel {
    Q_OBJECT
  public:
    // `want` is asked for each commit a drawn row lacks, once.
    CommitsModel(std::function<void(const std::string&)> want, QObject* parent);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;

    void reset(std::vector<std::string> commits);
    void setRow(const std::string& id, CommitRow row);
    const std::vector<std::string>& commits() const { return commits_; }

  private:
    std::function<void(const std::string&)> want_;
    std::vector<std::string> commits_;
    std::unordered_map<std::string, CommitRow> rows_;
    mutable std::set<std::string> pending_;  // asked for and not arrived
};

class CommitsInfo : public QWidget {
    Q_OBJECT
  public:
    CommitsInfo(AppState& state, ObjectLoader& loader, QWidget* parent);

    RefsPopUp* refPopUp() const { return refPopUp_; }
    QListView* tableView() const { return tableView_; }
    const CommitsModel& model() const { return *model_; }
    // The row's control, as a click on it: 0 copies the id, 1 moves the head onto the commit.
    void segmentAction(int row, int segment);

  private:
    void refresh(const ViewPlace& place);  // an empty place: the top
    void load(const std::string& id);
    // The head to go back to from a commit: "ref: refs/heads/<name>" or "ref: refs/tags/<name>".
    std::optional<std::string> headToGoBackTo() const;
    void goBack();

    AppState& state_;
    ObjectLoader& loader_;
    RefsPopUp* refPopUp_;
    QListView* tableView_;
    CommitsModel* model_;
    QLabel* commitHeadLabel_;
    QPushButton* backButton_;
    // The head shown before a row's short id moved it onto a commit, and where: that
    // repository's URL.
    std::string headBefore_;
    std::string headBeforeIn_;
    ElapsedTimeFormatter dateFormatter_{"on "};
    LoadTicket ticket_;  // the reads for the history shown
    std::shared_ptr<EventReceiver> receiver_;
};

// The information runs of a commit row: "Ann", " authored and ", "Bo", " committed 2 days ago".
QStringList commitInfo(const std::string& author, const std::string& committer, const QString& age);

}  // namespace corvane::ui
