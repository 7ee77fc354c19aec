// RepositoryList: the left pane of the main window. One row per repository the user can see,
// sorted by name in the user's locale, then a row with the button that adds one; under the list
// a status line ("Loading repositories…", "3 Repositories", "Signed Out") with a busy indicator.
// Selecting a row selects the repository in the state; Delete or the row's menu asks to delete
// it. While shown, the rows are redrawn every minute so that their relative dates advance, and
// the list follows the store every few seconds: repositories created, deleted or pushed by other
// programs or people appear, vanish or change date.
//
// Threads: the GUI thread only; the state's events arrive there.
#pragma once

#include <QAbstractListModel>
#include <QListView>
#include <QWidget>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "app/elapsed_time_formatter.h"
#include "ui/core/event_receiver.h"

class QLabel;
class QProgressBar;
class QTimer;

namespace corvane::ui {

// The rows: the repositories in display order, then the add row.
class RepositoryListModel : public QAbstractListModel {
    Q_OBJECT
  public:
    enum Role { statusRole = Qt::UserRole + 1, sharedRole, addRowRole };

    explicit RepositoryListModel(QObject* parent);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    const std::vector<std::shared_ptr<Repository>>& repositories() const { return repositories_; }
    std::optional<int> rowOf(const std::string& url) const;
    // Inserts at its sorted place; returns the row.
    int add(std::shared_ptr<Repository> repository);
    void replace(int row, std::shared_ptr<Repository> repository);
    void remove(int row);
    void reset(std::vector<std::shared_ptr<Repository>> repositories);
    // Every row drawn again from what it holds (relative dates move on).
    void redrawAll();

  private:
    std::vector<std::shared_ptr<Repository>> repositories_;
    ElapsedTimeFormatter dateFormatter_{""};
};

class RepositoryList : public QWidget {
    Q_OBJECT
  public:
    static constexpr int kRefreshMilliseconds = 60 * 1000;
    // How often, while shown, the list asks the store what changed elsewhere.
    static constexpr int kFollowMilliseconds = 3 * 1000;

    RepositoryList(AppState& state, QWidget* parent);

    // How often the list asks the store while shown; 0 stops it (a test that shapes the rows
    // itself).
    void setFollowInterval(int milliseconds);

    QListView* tableView() const { return tableView_; }
    QLabel* statusTextField() const { return statusTextField_; }
    QProgressBar* progressIndicator() const { return progressIndicator_; }
    const RepositoryListModel& model() const { return *model_; }

  protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

  private:
    void handleEvent(const Event& event);
    void selectRow(std::optional<int> row);
    void updateStatus();
    void showStatus(const QString& text, bool busy);
    void deleteRow(int row);
    void placeAddButton();

    AppState& state_;
    RepositoryListModel* model_;
    QListView* tableView_;
    QLabel* statusTextField_;
    QProgressBar* progressIndicator_;
    QTimer* refresher_;
    QTimer* follower_;
    int followInterval_ = kFollowMilliseconds;
    bool loading_ = true;
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
