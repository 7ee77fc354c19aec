#include <string_view>

#include "app/command_line.h"
#include "ui/desktop_application.h"

int main(int argc, char** argv) {
    // Without a command, or with a share link from the desktop's URL handler: the window.
    bool desktop = argc == 1 || std::string_view(argv[1]).starts_with("corvane://");
    if (desktop) return corvane::ui::runDesktopApplication(argc, argv);
    return corvane::runCommandLine(argc, argv);
}
