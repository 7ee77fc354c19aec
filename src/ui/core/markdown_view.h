// MarkdownView: a Markdown document rendered by Qt in GitHub's dialect (tables, task lists,
// strikethrough, autolinks); links open in the desktop's browser. Used for a file's preview and
// for the README under a directory's listing.
//
// Threads: the GUI thread only.
#pragma once

#include <QByteArray>
#include <QTextBrowser>

namespace corvane::ui {

class MarkdownView : public QTextBrowser {
    Q_OBJECT
  public:
    explicit MarkdownView(QWidget* parent);

    void showMarkdown(const QByteArray& utf8);
    // Text that is not Markdown (a README without an extension) in the same frame.
    void showPlainText(const QByteArray& utf8);

  private:
    void showTop();
};

}  // namespace corvane::ui
