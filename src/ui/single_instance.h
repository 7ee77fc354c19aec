// SingleInstance: one Corvane window per user. The first instance listens on a local socket in
// a folder only its user can reach; a later one hands its request over and exits. Both ends ask
// the kernel who the other is, and talk only to their own user. A request is one line: "show",
// or a share link to join.
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

    // "corvane.socket" in $XDG_RUNTIME_DIR, which must be this user's and closed to others;
    // without one, in "corvane-<uid>" in the temporary folder, made here with mode 0700. Throws
    // an Error that says what is wrong with a folder that is not this user's alone.
    static QString socketPath();
    // Gives the request to the instance listening at `path`; true once it confirmed. False, with
    // nothing sent, when nobody listens there or the listener is another user's.
    static bool handOver(const QString& path, const QString& request);

    // Listens at `path` (taking over a socket left by an instance that is gone) and passes each
    // request of this user's to `received`; connections of other users are dropped.
    SingleInstance(QString path, std::function<void(const QString&)> received, QObject* parent);
    bool listening() const;

  private:
    QLocalServer* server_;
    std::function<void(const QString&)> received_;
};

}  // namespace corvane::ui
