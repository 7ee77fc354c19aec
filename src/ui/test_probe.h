// TestProbe: a test-only window onto the widgets, for end-to-end tests that drive the built
// program on a real display with real input. Started only when CORVANE_TEST_PROBE names a socket
// path; it answers one line per request with what the widgets themselves hold, found by object
// name, so that a test can click where a row is drawn and read back what a person would see:
//   rect NAME            "x y w h" of the visible widget, in screen coordinates
//   row NAME TEXT        "x y", a point over the text of the first row of item view NAME whose
//                        text holds TEXT (scrolled into view first)
//   centre NAME          "x y", the middle of the visible widget
//   segment NAME TEXT    "x y", the middle of the short-id part of that row's control (the
//                        history and reference lists)
//   selected NAME        the selected rows' first column, tab-separated
//   rows NAME            every row's first column, tab-separated
//   tab NAME TEXT        "x y", the middle of the tab of tab bar NAME whose text holds TEXT
//   current NAME         the text of tab bar NAME's current tab
//   contrast NAME TEXT   the lowest contrast ratio (1 to 21) of the row's texts on the view
//   text NAME            a label's, line edit's, button's or text view's text
//   scroll NAME          the vertical scroll position of a scrolled view
//   focus                the object name (or class) of the widget with the keyboard focus
//   dialogs              the titles and texts of visible dialogs and message boxes
// Anything it cannot find answers "none".
//
// Threads: the GUI thread; requests arrive on its event loop.
#pragma once

#include <QObject>
#include <QString>

class QLocalServer;

namespace corvane::ui {

class TestProbe : public QObject {
    Q_OBJECT
  public:
    // The probe for the path in CORVANE_TEST_PROBE, or none when it is not set.
    static TestProbe* startIfAsked(QObject* parent);

  private:
    TestProbe(const QString& path, QObject* parent);
    QString answer(const QString& request) const;

    QLocalServer* server_;
};

}  // namespace corvane::ui
