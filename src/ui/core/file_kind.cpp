#include "ui/core/file_kind.h"

#include <QMimeDatabase>
#include <array>
#include <mutex>
#include <unordered_map>

#include "ui/core/icons.h"

namespace corvane::ui {

namespace {

bool inheritsAny(const QMimeType& type, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (type.inherits(QString::fromLatin1(name))) return true;
    }
    return false;
}

QIcon themedFileKindIcon(FileKind kind);
FileKind kindOfExtension(const QString& extension);

}  // namespace

FileKind fileKindOf(const QString& name, bool isDirectory) {
    if (isDirectory) return FileKind::directory;
    if (!name.contains(QLatin1Char('.')) || name.endsWith(QLatin1Char('.'))) return FileKind::text;
    // One lookup per extension: the database's glob matching costs microseconds a name, which a
    // directory of ten thousand files would pay again on every listing.
    static std::mutex mutex;
    static std::unordered_map<QString, FileKind> byExtension;
    QString extension = name.section(QLatin1Char('.'), -1).toLower();
    {
        std::lock_guard lock(mutex);
        if (auto known = byExtension.find(extension); known != byExtension.end())
            return known->second;
    }
    FileKind kind = kindOfExtension(extension);
    std::lock_guard lock(mutex);
    byExtension.emplace(extension, kind);
    return kind;
}

namespace {

FileKind kindOfExtension(const QString& extension) {
    static const QMimeDatabase database;
    QMimeType type = database.mimeTypeForFile(QStringLiteral("file.") + extension,
                                              QMimeDatabase::MatchExtension);
    if (!type.isValid() || type.isDefault()) return FileKind::text;  // unknown: shown as text
    if (type.inherits(QStringLiteral("application/pdf"))) return FileKind::pdf;
    QString top = type.name().section(QLatin1Char('/'), 0, 0);
    if (top == QLatin1String("image") || top == QLatin1String("audio") ||
        top == QLatin1String("video"))
        return FileKind::image;
    if (inheritsAny(type, {"application/zip", "application/x-tar", "application/gzip",
                           "application/x-compressed-tar", "application/x-7z-compressed",
                           "application/vnd.rar", "application/x-bzip", "application/x-xz",
                           "application/zstd", "application/x-archive"}))
        return FileKind::archive;
    if (inheritsAny(type, {"text/markdown", "text/x-readme"}) ||
        type.name() == QLatin1String("text/plain"))
        return FileKind::text;
    // Source languages, scripts and data formats all derive from plain text.
    if (type.inherits(QStringLiteral("text/plain")) ||
        inheritsAny(type, {"application/json", "application/xml", "application/javascript",
                           "application/x-shellscript", "application/toml", "application/x-yaml"}))
        return FileKind::code;
    return FileKind::binary;
}

}  // namespace

QIcon fileKindIcon(FileKind kind) {
    // Looked up once per kind: a theme lookup for every row drawn would cost milliseconds.
    static std::array<QIcon, 8> icons;
    auto& icon = icons[static_cast<std::size_t>(kind)];
    if (icon.isNull()) icon = themedFileKindIcon(kind);
    return icon;
}

namespace {

QIcon themedFileKindIcon(FileKind kind) {
    loadResources();
    auto themed = [](const char* name, const char* fallback) {
        return QIcon::fromTheme(QString::fromLatin1(name), QIcon(QString::fromLatin1(fallback)));
    };
    switch (kind) {
        case FileKind::directory:
            return themed("folder", ":/icons/file-directory.svg");
        case FileKind::code:
            return themed("text-x-script", ":/icons/file-code.svg");
        case FileKind::image:
            return themed("image-x-generic", ":/icons/file-media.svg");
        case FileKind::archive:
            return themed("package-x-generic", ":/icons/file-zip.svg");
        case FileKind::pdf:
            return themed("application-pdf", ":/icons/file-pdf.svg");
        case FileKind::binary:
            return themed("application-x-executable", ":/icons/file-binary.svg");
        case FileKind::loading:
        case FileKind::text:
            break;
    }
    return themed("text-x-generic", ":/icons/file.svg");
}

}  // namespace

}  // namespace corvane::ui
