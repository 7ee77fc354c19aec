#include "ui/core/preview_content.h"

#include <QImageReader>
#include <QMediaFormat>
#include <QMimeDatabase>
#include <QSet>

#include "ui/core/code_view.h"

namespace corvane::ui {

namespace {

QMimeType mimeTypeOf(const QString& filename) {
    static const QMimeDatabase database;
    return database.mimeTypeForFile(filename, QMimeDatabase::MatchExtension);
}

bool inheritsOneOf(const QMimeType& type, const QSet<QString>& names) {
    if (names.contains(type.name())) return true;
    for (const QString& parent : type.allAncestors()) {
        if (names.contains(parent)) return true;
    }
    return false;
}

// Where UTF-8 text must end so that no character is split: `limit`, or earlier by the bytes of a
// sequence that would run past it.
qsizetype characterBoundary(const QByteArray& data, qsizetype limit) {
    if (limit >= data.size()) return data.size();
    qsizetype end = limit;
    while (end > 0 && end > limit - 4 && (static_cast<unsigned char>(data[end]) & 0xC0) == 0x80)
        --end;
    return end;
}

// Strict UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF; NUL bytes, which text
// does not hold, count against it too.
bool isUtf8Text(QByteArrayView bytes) {
    const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = at + bytes.size();
    while (at < end) {
        unsigned char lead = *at;
        if (lead >= 0x01 && lead < 0x80) {
            ++at;
            continue;
        }
        int length = 0;
        unsigned char low = 0x80;  // the range of the second byte
        unsigned char high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        } else {
            return false;  // NUL, a stray continuation byte, or a lead byte never used
        }
        if (end - at < length || at[1] < low || at[1] > high) return false;
        for (int i = 2; i < length; ++i) {
            if ((at[i] & 0xC0) != 0x80) return false;
        }
        at += length;
    }
    return true;
}

}  // namespace

void preferFfmpegMediaBackend() {
    if (!qEnvironmentVariableIsSet("QT_MEDIA_BACKEND")) qputenv("QT_MEDIA_BACKEND", "ffmpeg");
}

bool isImageFile(const QString& filename) {
    static const QSet<QString> types = [] {
        QSet<QString> names;
        for (const QByteArray& name : QImageReader::supportedMimeTypes())
            names.insert(QString::fromLatin1(name));
        return names;
    }();
    QMimeType type = mimeTypeOf(filename);
    return type.isValid() && !type.isDefault() && inheritsOneOf(type, types);
}

bool isMediaFile(const QString& filename) {
    static const QSet<QString> types = [] {
        QSet<QString> names;
        QMediaFormat formats;
        for (auto format : formats.supportedFileFormats(QMediaFormat::Decode)) {
            QMimeType type = QMediaFormat(format).mimeType();
            if (!type.isValid()) continue;
            names.insert(type.name());
            for (const QString& alias : type.aliases())
                names.insert(alias);
        }
        return names;
    }();
    QMimeType type = mimeTypeOf(filename);
    if (!type.isValid() || type.isDefault()) return false;
    QString top = type.name().section(QLatin1Char('/'), 0, 0);
    if (top != QLatin1String("audio") && top != QLatin1String("video")) return false;
    return inheritsOneOf(type, types);
}

bool isMarkdownFile(const QString& filename) {
    return mimeTypeOf(filename).inherits(QStringLiteral("text/markdown"));
}

PreviewContent previewContentOf(const QString& filename, const QByteArray& data) {
    if (isImageFile(filename)) return {PreviewKind::image, data, false};
    if (isMediaFile(filename)) return {PreviewKind::media, data, false};
    qsizetype end = characterBoundary(data, static_cast<qsizetype>(kShownTextBytes));
    QByteArrayView text(data.constData(), end);
    if (!isUtf8Text(text))
        return {PreviewKind::binary, data.left(static_cast<qsizetype>(kShownHexBytes)),
                data.size() > static_cast<qsizetype>(kShownHexBytes)};
    PreviewKind kind = isMarkdownFile(filename)   ? PreviewKind::markdown
                       : hasHighlighter(filename) ? PreviewKind::code
                                                  : PreviewKind::text;
    return {kind, data.left(end), end < data.size()};
}

QString hexDump(const QByteArray& data) {
    static const char digits[] = "0123456789abcdef";
    QString dump;
    dump.reserve(data.size() / 16 * 78 + 78);
    for (qsizetype line = 0; line < data.size(); line += 16) {
        dump += QStringLiteral("%1  ").arg(line, 8, 16, QLatin1Char('0'));
        QString ascii;
        for (qsizetype i = line; i < line + 16; ++i) {
            if (i < data.size()) {
                auto byte = static_cast<unsigned char>(data[i]);
                dump += QLatin1Char(digits[byte >> 4]);
                dump += QLatin1Char(digits[byte & 0xF]);
                dump += QLatin1Char(' ');
                ascii += byte >= 0x20 && byte < 0x7F ? QLatin1Char(static_cast<char>(byte))
                                                     : QLatin1Char('.');
            } else {
                dump += QStringLiteral("   ");
            }
            if (i == line + 7) dump += QLatin1Char(' ');
        }
        dump += QStringLiteral(" |") + ascii + QStringLiteral("|\n");
    }
    return dump;
}

}  // namespace corvane::ui
