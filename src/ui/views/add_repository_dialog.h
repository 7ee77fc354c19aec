// AddRepositoryDialog: the sheet that adds a repository, by creating a new one (Create tab: a
// name, with the clone URL it will have shown as it is typed) or joining one somebody shared
// (Join tab: the share link, with the repository's name read from it). A share link on the
// clipboard is filled in for the user.
//
// Threads: the GUI thread only.
#pragma once

#include <QDialog>

#include "app/app_state.h"

class QDialogButtonBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTabWidget;

namespace corvane::ui {

// What the Create tab makes of a typed name: the trimmed name and the text under the field
// (empty: nothing to show); `acceptable` when Create may go ahead.
struct CreateNameCheck {
    QString name;
    QString preview;
    bool acceptable = false;
};
CreateNameCheck checkCreateName(const QString& text);

// The Join tab's label for a typed link, and whether Join may go ahead.
struct JoinLinkCheck {
    QString label;
    bool acceptable = false;
};
JoinLinkCheck checkJoinLink(const QString& text);

class AddRepositoryDialog : public QDialog {
    Q_OBJECT
  public:
    static constexpr const char* kShareLinkPrefix = "corvane://share/";

    // `selectedTab`: 0 create, 1 join.
    AddRepositoryDialog(AppState& state, int selectedTab, QWidget* parent);

    QTabWidget* tabView() const { return tabView_; }
    QLineEdit* createNameField() const { return createNameField_; }
    QLabel* createGitURLLabel() const { return createGitURLLabel_; }
    QLineEdit* createGitURLField() const { return createGitURLField_; }
    QLabel* joinURLLabel() const { return joinURLLabel_; }
    QLineEdit* joinURLField() const { return joinURLField_; }
    QPushButton* defaultButton() const { return defaultButton_; }

    void createAction();
    void joinAction();

  private:
    void refresh();

    AppState& state_;
    QTabWidget* tabView_;
    QLineEdit* createNameField_;
    QLabel* createGitURLLabel_;
    QLineEdit* createGitURLField_;
    QLabel* joinURLLabel_;
    QLineEdit* joinURLField_;
    QDialogButtonBox* buttons_;
    QPushButton* defaultButton_;
};

}  // namespace corvane::ui
