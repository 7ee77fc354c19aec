// The window with many repositories: how long from the program's start until the list is painted
// with all of them (target: under 1 s with 1,000), and what a refresh of that list costs (the
// reload from the store, and the redraw every minute that moves relative dates on).
//
// usage: window_bench [COUNT]   (default 1000; offscreen unless QT_QPA_PLATFORM says otherwise)
//
// The store is kept in $TMPDIR/corvane-window-bench-COUNT, filled on the first run (which takes a
// while): every later run measures start-up against the same store, as a user's restart would.
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QListView>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

#include "app/application.h"
#include "ui/core/event_receiver.h"
#include "ui/qt_main_queue.h"
#include "ui/views/main_window.h"
#include "ui/views/repository_list.h"

using namespace corvane;

namespace {

// Runs the event loop until `done`; false after a minute.
template <typename Done>
bool waitFor(Done done) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > 60000) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void fill(Application& application, int count) {
    Backend& backend = application.state().backend();
    int done = 0;
    for (int i = 0; i < count; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "repository-%04d", i);
        backend.createRepository(name, [&](Result<std::shared_ptr<Repository>>) { ++done; });
    }
    waitFor([&] { return done == count; });
}

}  // namespace

int main(int argc, char** argv) {
    QElapsedTimer sinceStart;
    sinceStart.start();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    int count = argc > 1 ? std::atoi(argv[1]) : 1000;
    QString folder = QDir::temp().filePath(QStringLiteral("corvane-window-bench-%1").arg(count));
    bool fresh = !QDir(folder).exists();
    QDir().mkpath(folder);
    qputenv("HOME", folder.toUtf8());
    qputenv("XDG_DATA_HOME", (folder + QStringLiteral("/data")).toUtf8());
    qputenv("XDG_CACHE_HOME", (folder + QStringLiteral("/cache")).toUtf8());
    qunsetenv("CORVANE_CLOUD");

    QApplication app(argc, argv);
    ui::QtMainQueue mainQueue;
    Application application(mainQueue);
    if (fresh) {
        std::printf("filling the store with %d repositories (once)…\n", count);
        fill(application, count);
        std::printf("run again to measure start-up against it\n");
        return 0;
    }

    ui::MainWindowController window(application, {});
    auto* list = window.repositoryList();
    int reloaded = 0;
    auto receiver = ui::EventReceiver::registerWith(application.state(), [&](const Event& event) {
        reloaded += std::holds_alternative<event::RepositoriesModified>(event);
    });
    window.resize(1000, 700);
    window.show();
    waitFor([&] { return list->model().rowCount() == count + 1; });
    window.repaint();  // paints now, as the first frame on screen would
    double startup = static_cast<double>(sinceStart.nsecsElapsed()) / 1e6;

    std::vector<double> reloads;
    std::vector<double> redraws;
    for (int i = 0; i < 10; ++i) {
        int before = reloaded;
        QElapsedTimer timer;
        timer.start();
        application.state().reloadRepositories();
        // The same repositories: the rows are redrawn from the new entries, not rebuilt.
        waitFor([&] { return reloaded > before; });
        window.repaint();
        reloads.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);

        timer.restart();
        list->tableView()->model()->dataChanged(list->tableView()->model()->index(0, 0),
                                                list->tableView()->model()->index(count - 1, 0));
        window.repaint();
        redraws.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
    }
    std::printf("| %-34s | %10s | %-16s |\n", "measure", "ms", "target");
    std::printf("|%s|%s|%s|\n", std::string(36, '-').c_str(), std::string(12, '-').c_str(),
                std::string(18, '-').c_str());
    std::printf("| start-up to the painted list, %4d | %10.1f | < 1000 ms %-6s |\n", count, startup,
                startup < 1000 ? "holds" : "MISSED");
    std::printf("| %-34s | %10.1f | %-16s |\n", "reload from the store, median", median(reloads),
                "");
    std::printf("| %-34s | %10.1f | %-16s |\n", "redraw of every row, median", median(redraws), "");
    return 0;
}
