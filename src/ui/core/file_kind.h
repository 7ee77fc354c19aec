// FileKind: what a tree entry is, for its icon and its preview, from its name through the shared
// MIME database: a directory, code, an image (images, audio and video share the media icon), an
// archive, a PDF, a binary, or text. A name without an extension (README, Makefile) and one the
// database does not know are text.
#pragma once

#include <QIcon>
#include <QString>

namespace corvane::ui {

enum class FileKind { loading, archive, binary, code, directory, image, pdf, text };

FileKind fileKindOf(const QString& name, bool isDirectory);
// The desktop theme's icon for the kind, or our own drawing of it.
QIcon fileKindIcon(FileKind kind);

}  // namespace corvane::ui
