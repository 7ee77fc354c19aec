#include "ui/core/markdown_view.h"

#include <QFontDatabase>
#include <QTextDocument>

#include "ui/core/text.h"

namespace corvane::ui {

MarkdownView::MarkdownView(QWidget* parent) : QTextBrowser(parent) {
    setOpenExternalLinks(true);
    setFrameShape(QFrame::NoFrame);
    document()->setDocumentMargin(16);
}

void MarkdownView::showMarkdown(const QByteArray& utf8) {
    document()->setDefaultFont(font());
    document()->setMarkdown(QString::fromUtf8(utf8), QTextDocument::MarkdownDialectGitHub);
}

void MarkdownView::showPlainText(const QByteArray& utf8) {
    document()->setDefaultFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    setPlainText(QString::fromUtf8(utf8));
}

}  // namespace corvane::ui
