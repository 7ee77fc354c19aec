#include <cstdio>
#include <string_view>
#include <vector>

#include "app/command_line.h"
#include "base/trace.h"
#include "ui/desktop_application.h"

int main(int argc, char** argv) {
    // Without a command, or with a share link from the desktop's URL handler: the window. It
    // keeps its log of cloud operations to itself unless asked (--verbose first); errors are
    // always said.
    std::vector<char*> args(argv, argv + argc);
    bool verbose = args.size() > 1 && std::string_view(args[1]) == "--verbose";
    if (verbose) args.erase(args.begin() + 1);
    bool desktop = args.size() == 1 || std::string_view(args[1]).starts_with("corvane://");
    if (!desktop) return corvane::runCommandLine(argc, argv);
    if (!verbose) {
        corvane::setTraceSink([](std::string_view line) {
            for (auto kind : {corvane::TraceModule::request, corvane::TraceModule::response,
                              corvane::TraceModule::info}) {
                auto mark = corvane::traceMark(kind);
                if (line.starts_with(mark) && line.substr(mark.size()).starts_with(' ')) return;
            }
            std::fwrite(line.data(), 1, line.size(), stderr);
            std::fputc('\n', stderr);
            std::fflush(stderr);
        });
    }
    return corvane::ui::runDesktopApplication(static_cast<int>(args.size()), args.data());
}
