// The desktop application: `corvane` without a command, or with a share link. Hands the request
// to a running instance when there is one; otherwise opens the main window, starts the git
// daemon, and runs until Quit (menu or tray), SIGTERM or SIGINT, then stops the daemon cleanly.
// Closing the window keeps the daemon serving where the desktop has a tray to bring it back.
#pragma once

namespace corvane::ui {

int runDesktopApplication(int argc, char** argv);

}  // namespace corvane::ui
