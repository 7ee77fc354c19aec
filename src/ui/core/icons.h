// Icons: the desktop's icon theme where it has the icon, else our own drawing of it, so the
// window looks the same on a desktop without a theme (and in offscreen tests and pictures).
#pragma once

#include <QIcon>

namespace corvane::ui {

// Makes the icons and texts built into the program readable under ":/"; any thread, any time.
void loadResources();

QIcon applicationIcon();
QIcon sharedMarkIcon();  // a repository that others share
QIcon copyIcon();
QIcon cloneIcon();
QIcon addIcon();

}  // namespace corvane::ui
