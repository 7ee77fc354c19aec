// RepositoryInfo: the right pane of the main window. A header for the selected repository (its
// name, which shows the Files view; its clone URL with copy and clone buttons), a tab bar whose
// tabs after Files are the counters of commits, branches, tags and contributors, and under it
// the five views, in the order of Repository::View. Only a notice shows while nothing is
// selected.
//
// Threads: the GUI thread only.
#pragma once

#include <QWidget>
#include <memory>

#include "app/app_state.h"
#include "ui/core/event_receiver.h"
#include "ui/views/clone_menu.h"

class QLabel;
class QLineEdit;
class QTabBar;
class QTabWidget;
class QToolButton;

namespace corvane::ui {

class RepositoryInfo : public QWidget {
    Q_OBJECT
  public:
    // `cloneApps`: the graphical clients the clone menu offers.
    RepositoryInfo(AppState& state, std::vector<CloneApp> cloneApps, QWidget* parent);

    QWidget* topStack() const { return topStack_; }
    QToolButton* repositoryButton() const { return repositoryButton_; }
    QLineEdit* urlField() const { return urlField_; }
    QToolButton* copyButton() const { return copyButton_; }
    QToolButton* cloneButton() const { return cloneButton_; }
    // One tab per view: "Files", then the counters ("3 Commits").
    QTabBar* tabBar() const;
    QString tabText(Repository::View view) const;
    QTabWidget* tabView() const { return tabView_; }
    // Where a view's issue puts its widget; a placeholder until then.
    void setViewWidget(Repository::View view, QWidget* widget);

  protected:
    void resizeEvent(QResizeEvent* event) override;

  private:
    void handleEvent(const Event& event);
    void refresh();
    // The name as wide as the header allows, cut in the middle with an ellipsis.
    void showName();
    void showView(Repository::View view);
    void selectTab(Repository::View view);

    AppState& state_;
    std::vector<CloneApp> cloneApps_;
    QWidget* topStack_;
    QToolButton* repositoryButton_;
    QString name_;  // the whole name, shown elided
    QLineEdit* urlField_;
    QToolButton* copyButton_;
    QToolButton* cloneButton_;
    QTabWidget* tabView_;
    bool selectingTab_ = false;  // a tab chosen by the program, not the user
    QLabel* emptyLabel_;
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
