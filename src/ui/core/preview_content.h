// PreviewContent: how a file is shown in the preview, decided from its name and its bytes. Images
// are the types QImageReader reads, media the types Qt Multimedia plays; Markdown is rendered;
// text with a highlighter for its language is code; other valid UTF-8 is text; anything else (not
// UTF-8, or holding NUL bytes as binaries do) is binary, shown as a hex dump of its start. Text
// beyond kShownTextBytes is cut at a character boundary.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>

namespace corvane::ui {

enum class PreviewKind { image, media, markdown, code, text, binary };

struct PreviewContent {
    PreviewKind kind = PreviewKind::binary;
    QByteArray shown;  // the bytes shown: the text (maybe cut), or what the hex dump covers
    bool truncated = false;
};

// Text longer than this is shown cut, with a notice: a viewer, not an editor, for huge logs.
inline constexpr std::size_t kShownTextBytes = 4 * 1024 * 1024;
// The start of a binary file shown in hex.
inline constexpr std::size_t kShownHexBytes = 4096;

PreviewContent previewContentOf(const QString& filename, const QByteArray& data);

// Sixteen bytes a line: offset, the bytes in hex, and those that are printable ASCII.
QString hexDump(const QByteArray& data);

// Qt 6.4's GStreamer backend plays nothing without plugins most desktops lack; its FFmpeg one
// plays the common formats on its own. Called before the application object exists, unless
// the user has chosen a backend.
void preferFfmpegMediaBackend();

bool isImageFile(const QString& filename);
bool isMediaFile(const QString& filename);
bool isMarkdownFile(const QString& filename);

}  // namespace corvane::ui
