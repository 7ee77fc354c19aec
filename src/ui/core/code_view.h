// CodeView: text for reading, not editing: the desktop's monospace font, line numbers in the
// margin, and syntax highlighting for the language of the file's name (QScintilla's lexers, in
// colours adjusted to a dark palette). Scintilla styles only what is on screen, so a large file
// opens as quickly as a small one.
//
// Threads: the GUI thread only.
#pragma once

#include <Qsci/qscilexer.h>
#include <Qsci/qsciscintilla.h>

#include <QByteArray>
#include <QString>
#include <memory>

namespace corvane::ui {

class CodeView : public QsciScintilla {
    Q_OBJECT
  public:
    explicit CodeView(QWidget* parent);
    ~CodeView() override;

    // Shows UTF-8 text, highlighted as `filename`'s language when there is a lexer for it.
    void showText(const QByteArray& utf8, const QString& filename);
    // The language highlighted ("C++", "Python"), or empty for plain text.
    QString language() const;

  protected:
    void changeEvent(QEvent* event) override;

  private:
    void applyPalette();

    std::unique_ptr<QsciLexer> lexer_;
};

// The lexer for a file name's language, or null.
std::unique_ptr<QsciLexer> lexerFor(const QString& filename);
bool hasHighlighter(const QString& filename);

}  // namespace corvane::ui
