// MainWindowController: the main window. Title "Corvane", the repository list and the selected
// repository's pane side by side in a split view whose panes never collapse, the menu bar with
// the application's commands, and a notice when the git daemon could not start. It answers the
// requests that need a window: error alerts, the delete confirmation, the signed-out notice,
// the add-repository sheet, About.
//
// Threads: the GUI thread only.
#pragma once

#include <QMainWindow>
#include <QMessageBox>
#include <QPointer>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "app/application.h"
#include "ui/core/event_receiver.h"
#include "ui/core/object_loader.h"
#include "ui/views/add_repository_dialog.h"
#include "ui/views/clone_menu.h"

class QLabel;
class QSplitter;

namespace corvane::ui {

class RepositoryInfo;
class RepositoryList;

class MainWindowController : public QMainWindow {
    Q_OBJECT
  public:
    MainWindowController(Application& application, std::vector<CloneApp> cloneApps);
    ~MainWindowController() override;

    RepositoryList* repositoryList() const { return repositoryList_; }
    RepositoryInfo* repositoryInfo() const { return repositoryInfo_; }
    QSplitter* splitView() const { return splitView_; }
    // The sheet or alert open over the window, if any.
    AddRepositoryDialog* addRepositorySheet() const { return addSheet_; }
    QMessageBox* alert() const { return alert_; }

    // Says in the window that the daemon is not serving, and why.
    void showServerProblem(const QString& text);
    // Opens the add sheet on the Join tab with the link filled in.
    void joinWithLink(const QString& link);
    void showAbout();

  protected:
    void closeEvent(QCloseEvent* event) override;

  private:
    // Size, split and selection as the window was last left, kept between runs.
    void restoreLayout();
    void saveLayout();
    void handleEvent(const Event& event);
    void buildMenus();
    void showAddSheet(int tab);
    // Shows the alert as a sheet over the window, replacing one already open.
    void presentAlert(QMessageBox* alert);
    void showNextAlert();
    void bringToFront();

    Application& application_;
    // Shared by the views; goes before them (its answers for them are dropped from then on).
    std::unique_ptr<ObjectLoader> loader_;
    QSplitter* splitView_;
    RepositoryList* repositoryList_;
    RepositoryInfo* repositoryInfo_;
    QLabel* serverNotice_;
    // Cleared by Qt when they close (they delete themselves).
    QPointer<AddRepositoryDialog> addSheet_;
    QPointer<QMessageBox> alert_;                      // the one shown
    std::deque<QPointer<QMessageBox>> waitingAlerts_;  // shown in turn after it
    std::shared_ptr<EventReceiver> receiver_;
    std::optional<std::string> selectionToRestore_;  // until the list has loaded
    bool closingAsked_ = false;                      // Close Window chosen from the menu or its key
    bool closingConfirmed_ = false;                  // the person said yes to stopping the daemon
};

}  // namespace corvane::ui
