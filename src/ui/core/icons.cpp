#include "ui/core/icons.h"

#include <mutex>

// The resources live in a static library: nothing would pull them into the program.
static void initResources() {
    Q_INIT_RESOURCE(corvane);
}

namespace corvane::ui {

void loadResources() {
    static std::once_flag loaded;
    std::call_once(loaded, initResources);
}

namespace {

QIcon themed(const char* name, const char* fallback) {
    loadResources();
    return QIcon::fromTheme(QString::fromLatin1(name), QIcon(QString::fromLatin1(fallback)));
}

}  // namespace

QIcon applicationIcon() {
    loadResources();
    return QIcon(QStringLiteral(":/icons/corvane.svg"));
}

QIcon sharedMarkIcon() {
    return themed("emblem-shared", ":/icons/shared.svg");
}

QIcon copyIcon() {
    return themed("edit-copy", ":/icons/copy.svg");
}

QIcon cloneIcon() {
    return themed("folder-download", ":/icons/clone.svg");
}

QIcon addIcon() {
    return themed("list-add", ":/icons/add.svg");
}

}  // namespace corvane::ui
