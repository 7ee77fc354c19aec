#include "ui/core/markdown_view.h"

#include <QFontDatabase>
#include <QScrollBar>
#include <QTextDocument>
#include <QTextFrame>
#include <QTextTable>

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
    // Tables as repository hosts draw them: thin collapsed rules, padded cells.
    for (QTextFrame* frame : document()->rootFrame()->childFrames()) {
        auto* table = qobject_cast<QTextTable*>(frame);
        if (!table) continue;
        QTextTableFormat format = table->format();
        format.setBorderCollapse(true);
        format.setBorder(1);
        format.setBorderBrush(palette().color(QPalette::Mid));
        format.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
        format.setCellPadding(6);
        format.setCellSpacing(0);
        table->setFormat(format);
    }
    showTop();
}

void MarkdownView::showTop() {
    // A document opens at its title, wherever the last one was left.
    moveCursor(QTextCursor::Start);
    verticalScrollBar()->setValue(0);
}

void MarkdownView::showPlainText(const QByteArray& utf8) {
    document()->setDefaultFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    setPlainText(QString::fromUtf8(utf8));
    showTop();
}

}  // namespace corvane::ui
