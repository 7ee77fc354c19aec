// SelectingLineEdit: a read-only text field that selects all its text on a click, so that the
// clone URL is copied in one step.
#pragma once

#include <QLineEdit>

namespace corvane::ui {

class SelectingLineEdit : public QLineEdit {
    Q_OBJECT
  public:
    using QLineEdit::QLineEdit;

  protected:
    void mousePressEvent(QMouseEvent* event) override {
        QLineEdit::mousePressEvent(event);
        selectAll();
    }
};

}  // namespace corvane::ui
