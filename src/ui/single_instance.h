// SingleInstance: one Corvane window per user. The first instance listens on a local socket in
// $XDG_RUNTIME_DIR (only its user may connect); a later one hands its request over and exits.
// A request is one line: "show", or a share link to join.
//
// Threads: the GUI thread; requests are passed on from its event loop.
#pragma once

#include <QObject>
#include <QString>
#include <functional>

class QLocalServer;

namespace corvane::ui {

class SingleInstance : public QObject {
    Q_OBJECT
  public:
    static constexpr const char* kShowRequest = "show";

    // $XDG_RUNTIME_DIR/corvane.socket, or a per-user name in the temporary folder without one.
    static QString socketPath();
    // Gives the request to the instance listening at `path`; true once it confirmed.
    static bool handOver(const QString& path, const QString& request);

    // Listens at `path` (taking over a socket left by an instance that is gone) and passes each
    // request to `received`.
    SingleInstance(QString path, std::function<void(const QString&)> received, QObject* parent);
    bool listening() const;

  private:
    QLocalServer* server_;
    std::function<void(const QString&)> received_;
};

}  // namespace corvane::ui
