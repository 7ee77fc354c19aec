// Handing a link or a folder to the desktop (a browser, the mail client, a git client, the file
// manager) through xdg-open, without ever waiting for it: the opener runs on its own, and only
// if it cannot do the job is the person told, with the fallback (the link copied, the path
// shown) so that nothing is silently lost.
//
// Threads: the GUI thread.
#pragma once

#include <QString>
#include <QUrl>

class QWidget;

namespace corvane::ui {

// Opens `url` with the desktop's opener. When that fails, says so over `window` ("Could not open
// the website") and gives the fallback: a folder's path is shown, any other link is copied to the
// clipboard. `what` names the thing for people: "the website", "the invitation e-mail".
void openOutside(const QUrl& url, const QString& what, QWidget* window);

}  // namespace corvane::ui
