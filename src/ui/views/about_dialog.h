// AboutDialog: the application's icon and name, its version ("Version 0.1.0"), and a short
// description in rich text.
#pragma once

#include <QDialog>

class QLabel;
class QTextBrowser;

namespace corvane::ui {

class AboutDialog : public QDialog {
    Q_OBJECT
  public:
    explicit AboutDialog(QWidget* parent);

    QLabel* versionTextField() const { return versionTextField_; }
    QTextBrowser* aboutTextView() const { return aboutTextView_; }

  private:
    QLabel* versionTextField_;
    QTextBrowser* aboutTextView_;
};

}  // namespace corvane::ui
