// The built `corvane` window on a real X server, driven as a person drives it: an Xvfb display
// of its own with the openbox window manager, mouse clicks and key presses sent by xdotool, and
// what the window shows read back through its test probe (src/ui/test_probe.h) and screenshots.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "support/process.h"

namespace corvane::testing {

// An X display with a window manager, for the life of the object.
class RealDisplay {
  public:
    // False (with the reason) where the X tools are not installed.
    static bool available(std::string& why) {
        for (const char* tool : {"Xvfb", "openbox", "xdotool"}) {
            if (runCommand({"sh", "-c", std::string("command -v ") + tool}).status != 0) {
                why = std::string(tool) + " is not installed";
                return false;
            }
        }
        return true;
    }

    RealDisplay() {
        // A display number nobody uses: its lock file and socket are free.
        for (int number = 90 + ::getpid() % 400;; ++number) {
            if (std::filesystem::exists("/tmp/.X" + std::to_string(number) + "-lock") ||
                std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(number)))
                continue;
            name_ = ":" + std::to_string(number);
            server_ = std::make_unique<BackgroundProcess>(std::vector<std::string>{
                "Xvfb", name_, "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
            auto socket = "/tmp/.X11-unix/X" + std::to_string(number);
            for (int i = 0; i < 100 && !std::filesystem::exists(socket); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (std::filesystem::exists(socket)) break;
        }
        manager_ = std::make_unique<BackgroundProcess>(
            std::vector<std::string>{"openbox", "--sm-disable"},
            std::map<std::string, std::string>{{"DISPLAY", name_}});
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }

    const std::string& name() const { return name_; }

    // The environment of a `corvane` window on this display, with its folders in `home` and its
    // test probe at probePath(home).
    std::map<std::string, std::string> windowEnvironment(const std::string& home) const {
        return {{"HOME", home},
                {"XDG_DATA_HOME", home + "/data"},
                {"XDG_CACHE_HOME", home + "/cache"},
                {"XDG_CONFIG_HOME", home + "/config"},
                {"XDG_RUNTIME_DIR", home},
                {"DISPLAY", name_},
                {"QT_QPA_PLATFORM", "xcb"},
                {"GIT_CONFIG_GLOBAL", "/dev/null"},
                {"CORVANE_TEST_PROBE", probePath(home)},
                {"LSAN_OPTIONS", "suppressions=" CORVANE_SOURCE_DIR "/tests/e2e/x11_leaks.supp"}};
    }
    static std::string probePath(const std::string& home) { return home + "/probe.socket"; }

    // xdotool on this display: "mousemove --sync 10 20 click 1", "key alt+Left".
    void xdo(const std::vector<std::string>& args) const {
        std::vector<std::string> argv{"xdotool"};
        argv.insert(argv.end(), args.begin(), args.end());
        auto result = runCommand(argv, {{"DISPLAY", name_}});
        EXPECT_EQ(result.status, 0) << result.out;
    }
    // Moves the pointer there, once the window saw it arrive, and clicks. (The pointer is nudged
    // first: "mousemove --sync" waits for a motion that never comes when it is already there.)
    void click(int x, int y, int count = 1, int button = 1) const {
        xdo({"mousemove_relative", "--", "3", "3", "mousemove", "--sync", std::to_string(x),
             std::to_string(y), "click", "--repeat", std::to_string(count), "--delay", "80",
             std::to_string(button)});
    }
    // Presses the left button there and carries what it holds to (toX, toY) in steps, as a hand
    // does, letting go there.
    void drag(int x, int y, int toX, int toY) const {
        xdo({"mousemove_relative", "--", "3", "3", "mousemove", "--sync", std::to_string(x),
             std::to_string(y), "mousedown", "1"});
        for (int step = 1; step <= 12; ++step) {
            xdo({"mousemove", std::to_string(x + (toX - x) * step / 12),
                 std::to_string(y + (toY - y) * step / 12), "sleep", "0.05"});
        }
        xdo({"sleep", "0.3", "mouseup", "1"});
    }
    void key(const std::string& keys) const { xdo({"key", "--clearmodifiers", keys}); }
    void type(const std::string& text) const { xdo({"type", "--delay", "20", text}); }

    // The whole screen as a PNG, for people to look at.
    void screenshot(const std::string& path) const {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        runCommand({"import", "-window", "root", path}, {{"DISPLAY", name_}});
    }

  private:
    std::string name_;
    std::unique_ptr<BackgroundProcess> server_;
    std::unique_ptr<BackgroundProcess> manager_;
};

// The window's test probe: one request line, one answer line.
class Probe {
  public:
    explicit Probe(std::string path) : path_(std::move(path)) {}

    std::string ask(const std::string& request) const {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        std::string answer;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            std::string line = request + "\n";
            if (::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
                char c = 0;
                while (::read(fd, &c, 1) == 1 && c != '\n')
                    answer += c;
            }
        }
        ::close(fd);
        return answer;
    }

    // Asks until the answer satisfies `wanted` (up to 15 s); the last answer.
    std::string waitFor(const std::string& request,
                        const std::function<bool(const std::string&)>& wanted) const {
        std::string answer;
        for (int i = 0; i < 150; ++i) {
            answer = ask(request);
            if (wanted(answer)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return answer;
    }
    std::string waitFor(const std::string& request, const std::string& expected) const {
        return waitFor(request, [&](const std::string& answer) { return answer == expected; });
    }
    // Waits for a dialog whose title or text holds `text`.
    ::testing::AssertionResult showsDialog(const std::string& text) const {
        auto shown = waitFor("dialogs", [&](const std::string& dialogs) {
            return dialogs.find(text) != std::string::npos;
        });
        if (shown.find(text) != std::string::npos) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "no dialog with \"" << text << "\": " << shown;
    }

    // Waits until the widget is shown and stays where it is: a window manager may still move a
    // window it has just mapped, and a click computed before would land beside its target.
    void settle(const std::string& name) const {
        std::string last;
        int same = 0;
        for (int i = 0; i < 100 && same < 3; ++i) {
            auto rect = ask("rect " + name);
            same = rect != "none" && !rect.empty() && rect == last ? same + 1 : 0;
            last = rect;
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
        }
        if (same < 3) ADD_FAILURE() << name << " did not settle: " << last;
    }

    // The screen point of a row ("x y"), once it is shown.
    std::pair<int, int> row(const std::string& view, const std::string& text) const {
        return point("row " + view + " " + text);
    }
    // The screen point of a tab of the repository's views ("Tags", "Contributor").
    std::pair<int, int> tab(const std::string& text) const { return point("tab views " + text); }

    // The point a request answers with ("x y"), once it has one.
    std::pair<int, int> point(const std::string& request) const {
        auto answer =
            waitFor(request, [](const std::string& a) { return !a.empty() && a != "none"; });
        int x = 0, y = 0;
        if (std::sscanf(answer.c_str(), "%d %d", &x, &y) != 2)
            ADD_FAILURE() << "no point for " << request;
        return {x, y};
    }

  private:
    std::string path_;
};

}  // namespace corvane::testing
