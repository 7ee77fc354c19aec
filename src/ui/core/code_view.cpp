#include "ui/core/code_view.h"

#include <Qsci/qscilexerbash.h>
#include <Qsci/qscilexerbatch.h>
#include <Qsci/qscilexercmake.h>
#include <Qsci/qscilexercpp.h>
#include <Qsci/qscilexercsharp.h>
#include <Qsci/qscilexercss.h>
#include <Qsci/qscilexerd.h>
#include <Qsci/qscilexerdiff.h>
#include <Qsci/qscilexerfortran.h>
#include <Qsci/qscilexerhtml.h>
#include <Qsci/qscilexerjava.h>
#include <Qsci/qscilexerjavascript.h>
#include <Qsci/qscilexerjson.h>
#include <Qsci/qscilexerlua.h>
#include <Qsci/qscilexermakefile.h>
#include <Qsci/qscilexermarkdown.h>
#include <Qsci/qscilexermatlab.h>
#include <Qsci/qscilexerpascal.h>
#include <Qsci/qscilexerperl.h>
#include <Qsci/qscilexerpo.h>
#include <Qsci/qscilexerproperties.h>
#include <Qsci/qscilexerpython.h>
#include <Qsci/qscilexerruby.h>
#include <Qsci/qscilexersql.h>
#include <Qsci/qscilexertcl.h>
#include <Qsci/qscilexertex.h>
#include <Qsci/qscilexerverilog.h>
#include <Qsci/qscilexervhdl.h>
#include <Qsci/qscilexerxml.h>
#include <Qsci/qscilexeryaml.h>

#include <QEvent>
#include <QFontDatabase>
#include <QMimeDatabase>
#include <functional>

namespace corvane::ui {

namespace {

using MakeLexer = std::function<std::unique_ptr<QsciLexer>()>;

template <typename Lexer>
MakeLexer make() {
    return [] { return std::make_unique<Lexer>(); };
}

// MIME types (a type or one it inherits from) and the lexer for each. Languages Scintilla has no
// lexer of their own for, but whose comments, strings and numbers look like C's, use the C++ one.
const std::vector<std::pair<const char*, MakeLexer>>& lexerTable() {
    static const std::vector<std::pair<const char*, MakeLexer>> table = {
        {"text/x-csrc", make<QsciLexerCPP>()},
        {"text/x-chdr", make<QsciLexerCPP>()},
        {"text/x-c++src", make<QsciLexerCPP>()},
        {"text/x-c++hdr", make<QsciLexerCPP>()},
        {"text/x-objcsrc", make<QsciLexerCPP>()},
        {"text/x-go", make<QsciLexerCPP>()},
        {"text/rust", make<QsciLexerCPP>()},
        {"text/x-swift", make<QsciLexerCPP>()},
        {"text/x-kotlin", make<QsciLexerCPP>()},
        {"text/x-scala", make<QsciLexerCPP>()},
        {"text/x-protobuf", make<QsciLexerCPP>()},
        {"text/x-csharp", make<QsciLexerCSharp>()},
        {"text/x-java", make<QsciLexerJava>()},
        {"application/json", make<QsciLexerJSON>()},
        {"application/javascript", make<QsciLexerJavaScript>()},
        {"text/javascript", make<QsciLexerJavaScript>()},
        {"application/x-typescript", make<QsciLexerJavaScript>()},
        {"text/x-typescript", make<QsciLexerJavaScript>()},
        {"text/x-python", make<QsciLexerPython>()},
        {"text/x-python3", make<QsciLexerPython>()},
        {"application/x-shellscript", make<QsciLexerBash>()},
        {"application/x-bat", make<QsciLexerBatch>()},
        {"text/x-cmake", make<QsciLexerCMake>()},
        {"text/x-makefile", make<QsciLexerMakefile>()},
        {"text/css", make<QsciLexerCSS>()},
        {"text/html", make<QsciLexerHTML>()},
        {"application/xml", make<QsciLexerXML>()},
        {"application/x-yaml", make<QsciLexerYAML>()},
        {"application/yaml", make<QsciLexerYAML>()},
        {"text/x-lua", make<QsciLexerLua>()},
        {"application/x-perl", make<QsciLexerPerl>()},
        {"application/x-ruby", make<QsciLexerRuby>()},
        {"application/sql", make<QsciLexerSQL>()},
        {"text/x-sql", make<QsciLexerSQL>()},
        {"text/x-patch", make<QsciLexerDiff>()},
        {"text/x-diff", make<QsciLexerDiff>()},
        {"text/markdown", make<QsciLexerMarkdown>()},
        {"text/x-tex", make<QsciLexerTeX>()},
        {"text/x-pascal", make<QsciLexerPascal>()},
        {"text/x-fortran", make<QsciLexerFortran>()},
        {"text/x-matlab", make<QsciLexerMatlab>()},
        {"text/x-tcl", make<QsciLexerTCL>()},
        {"text/x-verilog", make<QsciLexerVerilog>()},
        {"text/x-vhdl", make<QsciLexerVHDL>()},
        {"text/x-dsrc", make<QsciLexerD>()},
        {"text/x-gettext-translation", make<QsciLexerPO>()},
        {"application/x-desktop", make<QsciLexerProperties>()},
        {"text/x-java-properties", make<QsciLexerProperties>()},
        {"application/toml", make<QsciLexerProperties>()},
    };
    return table;
}

const MakeLexer* lexerMaker(const QString& filename) {
    static const QMimeDatabase database;
    QMimeType type = database.mimeTypeForFile(filename, QMimeDatabase::MatchExtension);
    if (!type.isValid() || type.isDefault()) return nullptr;
    for (const auto& [name, maker] : lexerTable()) {
        if (type.inherits(QString::fromLatin1(name))) return &maker;
    }
    return nullptr;
}

// The same hue with the lightness turned over, so that dark ink on white becomes light ink on a
// dark background with the same meaning.
QColor forDarkBackground(const QColor& color) {
    float hue = 0;
    float saturation = 0;
    float lightness = 0;
    float alpha = 0;
    color.getHslF(&hue, &saturation, &lightness, &alpha);
    return QColor::fromHslF(hue, saturation, std::max(1.0F - lightness, 0.55F), alpha);
}

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Base).lightness() < 128;
}

}  // namespace

std::unique_ptr<QsciLexer> lexerFor(const QString& filename) {
    const MakeLexer* maker = lexerMaker(filename);
    return maker ? (*maker)() : nullptr;
}

bool hasHighlighter(const QString& filename) {
    return lexerMaker(filename) != nullptr;
}

CodeView::CodeView(QWidget* parent) : QsciScintilla(parent) {
    setUtf8(true);
    setReadOnly(true);
    setFrameShape(QFrame::NoFrame);
    setWrapMode(WrapNone);
    setCaretWidth(0);
    setMarginType(0, NumberMargin);
    setMarginLineNumbers(0, true);
    setMarginWidth(1, 0);
    setFolding(NoFoldStyle);
    setBraceMatching(NoBraceMatch);
    SendScintilla(SCI_SETUNDOCOLLECTION, 0L);  // nothing is edited
    // A horizontal scroll bar only as wide as the longest line seen.
    SendScintilla(SCI_SETSCROLLWIDTH, 1L);
    SendScintilla(SCI_SETSCROLLWIDTHTRACKING, 1L);
    SendScintilla(SCI_SETMARGINLEFT, 0UL, 6L);  // a gap between the numbers and the text
    applyPalette();
}

CodeView::~CodeView() {
    setLexer(nullptr);  // before lexer_ goes
}

QString CodeView::language() const {
    return lexer_ ? QString::fromLatin1(lexer_->language()) : QString();
}

void CodeView::showText(const QByteArray& utf8, const QString& filename) {
    setLexer(nullptr);
    lexer_ = lexerFor(filename);
    setReadOnly(false);
    // Straight from the bytes: no detour through a QString for a file of megabytes.
    SendScintilla(SCI_CLEARALL);
    SendScintilla(SCI_APPENDTEXT, static_cast<unsigned long>(utf8.size()), utf8.constData());
    setReadOnly(true);
    applyPalette();
    setCursorPosition(0, 0);
}

void CodeView::changeEvent(QEvent* event) {
    QsciScintilla::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyPalette();
}

void CodeView::applyPalette() {
    const QPalette& colours = palette();
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    QColor paper = colours.color(QPalette::Base);
    QColor ink = colours.color(QPalette::Text);
    bool dark = isDark(colours);
    if (lexer_) {
        setLexer(nullptr);
        for (int style = 0; style < 128; ++style) {
            if (lexer_->description(style).isEmpty()) continue;
            QColor colour = lexer_->defaultColor(style);
            // Black and greys are the lexers' plain text: the palette's own, light or dark.
            if (colour.hslSaturationF() < 0.15F)
                colour = ink;
            else if (dark)
                colour = forDarkBackground(colour);
            lexer_->setColor(colour, style);
            QFont styleFont = font;
            styleFont.setBold(lexer_->defaultFont(style).bold());
            styleFont.setItalic(lexer_->defaultFont(style).italic());
            lexer_->setFont(styleFont, style);
        }
        lexer_->setDefaultFont(font);
        lexer_->setPaper(paper, -1);
        lexer_->setDefaultPaper(paper);
        lexer_->setEolFill(true, -1);
        setLexer(lexer_.get());
    } else {
        setFont(font);
        setPaper(paper);
        setColor(ink);
    }
    setMarginsFont(font);
    setMarginsBackgroundColor(colours.color(QPalette::Window));
    setMarginsForegroundColor(colours.color(QPalette::PlaceholderText));
    setSelectionBackgroundColor(colours.color(QPalette::Highlight));
    setSelectionForegroundColor(colours.color(QPalette::HighlightedText));
    int count = std::max(lines(), 1);
    setMarginWidth(0, QString(QString::number(count).size() + 1, QLatin1Char('9')));
}

}  // namespace corvane::ui
