#include "ui/desktop_application.h"

#include <sys/socket.h>
#include <unistd.h>

#include <QApplication>
#include <QMenu>
#include <QMessageBox>
#include <QSocketNotifier>
#include <QSystemTrayIcon>
#include <QTimer>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>

#include "app/application.h"
#include "base/error.h"
#include "base/queues.h"
#include "base/trace.h"
#include "base/version.h"
#include "ui/core/icons.h"
#include "ui/core/locale_text.h"
#include "ui/core/preview_content.h"
#include "ui/core/text.h"
#include "ui/qt_main_queue.h"
#include "ui/single_instance.h"
#include "ui/test_probe.h"
#include "ui/views/add_repository_dialog.h"
#include "ui/views/main_window.h"

namespace corvane::ui {

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int) {
    char byte = 1;
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

// SIGTERM and SIGINT end the event loop like Quit, so that everything stops in order.
void quitOnSignals(QObject* parent) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) return;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, parent);
    QObject::connect(notifier, &QSocketNotifier::activated, parent, [] {
        char byte = 0;
        [[maybe_unused]] auto got = ::read(signalPipe[0], &byte, 1);
        QApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

bool isShareLink(const QString& request) {
    return request.startsWith(QLatin1String(AddRepositoryDialog::kShareLinkPrefix));
}

}  // namespace

int runDesktopApplication(int argc, char** argv) {
    ui::preferFfmpegMediaBackend();
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Corvane"));
    QApplication::setApplicationDisplayName(QStringLiteral("Corvane"));
    QApplication::setOrganizationDomain(QStringLiteral("corvane.org"));
    QApplication::setDesktopFileName(QString::fromLatin1(kBundleIdentifier));
    if (auto version = versionString()) QApplication::setApplicationVersion(toQString(*version));
    QApplication::setWindowIcon(applicationIcon());
    useQtLocale();

    QString request = argc > 1 ? QString::fromLocal8Bit(argv[1])
                               : QString::fromLatin1(SingleInstance::kShowRequest);
    QString socket;
    try {
        socket = SingleInstance::socketPath();
    } catch (const std::exception& error) {
        // Without a private place to meet, a later start could not tell this window from
        // another user's program.
        trace(TraceModule::error, error.what());
        QMessageBox::critical(
            nullptr, QStringLiteral("Corvane"),
            QStringLiteral("Corvane cannot start: ") + QString::fromUtf8(error.what()));
        return 1;
    }
    if (SingleInstance::handOver(socket, request)) return 0;

    QtMainQueue mainQueue;
    Application application(mainQueue);
    std::unique_ptr<MainWindowController> window;
    try {
        window = std::make_unique<MainWindowController>(application,
                                                        installedCloneApps(desktopDataFolders()));
    } catch (const std::exception& error) {
        // Without its store the application has nothing to show.
        QMessageBox::critical(
            nullptr, QStringLiteral("Corvane"),
            QStringLiteral("Corvane cannot start: ") + QString::fromUtf8(error.what()));
        return 1;
    }
    SingleInstance instance(
        socket,
        [&window, &application](const QString& received) {
            if (isShareLink(received)) {
                trace(TraceModule::info, "Opening the join sheet for " + toStdString(received));
                window->joinWithLink(received);
            } else {
                application.showMainWindow();
            }
        },
        &app);
    quitOnSignals(&app);
    TestProbe::startIfAsked(&app);

    std::unique_ptr<QSystemTrayIcon> tray;
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        tray = std::make_unique<QSystemTrayIcon>(applicationIcon());
        tray->setToolTip(QStringLiteral("Corvane"));
        auto* menu = new QMenu(window.get());
        menu->addAction(QStringLiteral("Show Corvane"), window.get(),
                        [&application] { application.showMainWindow(); });
        menu->addSeparator();
        menu->addAction(QStringLiteral("Quit Corvane"), &app, &QApplication::quit);
        tray->setContextMenu(menu);
        QObject::connect(tray.get(), &QSystemTrayIcon::activated, window.get(),
                         [&application](QSystemTrayIcon::ActivationReason reason) {
                             if (reason == QSystemTrayIcon::Trigger) application.showMainWindow();
                         });
        tray->show();
        // The daemon keeps serving with the window closed; the tray brings it back.
        QApplication::setQuitOnLastWindowClosed(false);
    }

    window->show();
    // Who holds the port is asked off the GUI thread: a program that never answers would keep
    // the window, and later starts handing over to it, waiting.
    std::future<bool> heldByAnotherUser;
    if (!application.didFinishLaunching()) {
        window->showServerProblem(
            QStringLiteral("The git daemon is not running: port %1 on 127.0.0.1 is taken by "
                           "another program. Repositories can be browsed, but git clients cannot "
                           "reach them until Corvane is started again with the port free.")
                .arg(Server::kDefaultPort));
        heldByAnotherUser = std::async(std::launch::async, [] {
            setThreadName("port-probe");
            return Server::heldByAnotherUsersCorvane(Server::kDefaultPort);
        });
        auto* poll = new QTimer(&app);
        QObject::connect(poll, &QTimer::timeout, &app, [&heldByAnotherUser, &window, poll] {
            if (heldByAnotherUser.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
                return;
            poll->stop();
            if (!heldByAnotherUser.get()) return;
            window->showServerProblem(
                QStringLiteral("The git daemon is not running: port %1 on 127.0.0.1 is held by "
                               "another user's Corvane. Repositories can be browsed; for git "
                               "clients, run corvane serve --port with a free port and the git "
                               "config line that corvane git-config --port prints.")
                    .arg(Server::kDefaultPort));
        });
        poll->start(100);
    }
    if (isShareLink(request)) window->joinWithLink(request);

    int status = app.exec();
    tray.reset();
    window.reset();  // its receivers leave the state's registry
    trace(TraceModule::info, "Quitting");
    return status;
}

}  // namespace corvane::ui
