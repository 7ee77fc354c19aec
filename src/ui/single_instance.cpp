#include "ui/single_instance.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "base/error.h"
#include "base/trace.h"

namespace corvane::ui {

namespace {

constexpr int kTimeoutMilliseconds = 3000;
constexpr qint64 kMaxRequest = 64 * 1024;

// Anyone who can create or replace a file in the socket's folder can stand in for the window and
// be handed share links; a folder that only its user reaches keeps them out.
void requirePrivateFolder(const std::string& folder, const struct stat& status,
                          const std::string& named) {
    std::string problem;
    if (S_ISLNK(status.st_mode)) {
        problem = "is a symbolic link";
    } else if (!S_ISDIR(status.st_mode)) {
        problem = "is not a folder";
    } else if (status.st_uid != ::geteuid()) {
        problem = "belongs to another user";
    } else if (status.st_mode & 077) {
        problem = "is open to other users";
    } else {
        return;
    }
    throw Error("The folder " + folder + named + " " + problem +
                "; Corvane keeps its socket only in a folder of yours alone");
}

// The user the kernel names at the other end of a local socket: the peer's user when it
// connected, or when it started listening.
std::optional<uid_t> peerUser(qintptr descriptor) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (descriptor < 0 || ::getsockopt(static_cast<int>(descriptor), SOL_SOCKET, SO_PEERCRED,
                                       &credentials, &length) != 0)
        return std::nullopt;
    return credentials.uid;
}

bool isOwnUser(qintptr descriptor) {
    auto user = peerUser(descriptor);
    return user && *user == ::geteuid();
}

}  // namespace

QString SingleInstance::socketPath() {
    auto socketIn = [](const std::string& folder) {
        return QDir(QString::fromStdString(folder)).filePath(QStringLiteral("corvane.socket"));
    };
    std::string runtime = qEnvironmentVariable("XDG_RUNTIME_DIR").toStdString();
    if (!runtime.empty()) {
        // The session's own folder, made by the system; a link to it is as good.
        struct stat status {};
        if (::stat(runtime.c_str(), &status) != 0)
            throw Error("The folder " + runtime +
                        " ($XDG_RUNTIME_DIR) cannot be used: " + std::strerror(errno));
        requirePrivateFolder(runtime, status, " ($XDG_RUNTIME_DIR)");
        return socketIn(runtime);
    }
    // The temporary folder is shared: whoever comes first may have made a folder of this name,
    // so one that is not exactly ours, as we would have made it, is refused.
    std::string folder =
        QDir(QDir::tempPath())
            .filePath(QStringLiteral("corvane-%1").arg(static_cast<qulonglong>(::geteuid())))
            .toStdString();
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        throw Error("Cannot make the folder " + folder + ": " + std::strerror(errno));
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0)
        throw Error("The folder " + folder + " cannot be used: " + std::strerror(errno));
    requirePrivateFolder(folder, status, "");
    return socketIn(folder);
}

bool SingleInstance::handOver(const QString& path, const QString& request) {
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(kTimeoutMilliseconds)) return false;
    // Checked before a byte is sent: a share link is not for another user's program.
    if (!isOwnUser(socket.socketDescriptor())) {
        trace(TraceModule::error,
              "Not handing over to " + path.toStdString() + ": it is not this user's Corvane");
        return false;
    }
    socket.write(request.toUtf8() + '\n');
    if (!socket.waitForBytesWritten(kTimeoutMilliseconds)) return false;
    // The answer says the request was taken, not only received by the kernel.
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(kTimeoutMilliseconds)) return false;
    }
    return socket.readLine().trimmed() == "ok";
}

SingleInstance::SingleInstance(QString path, std::function<void(const QString&)> received,
                               QObject* parent)
    : QObject(parent), server_(new QLocalServer(this)), received_(std::move(received)) {
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(path)) {
        // Nobody answered there (handOver failed before this): a socket of an instance gone.
        QLocalServer::removeServer(path);
        server_->listen(path);
    }
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (auto* socket = server_->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            if (!isOwnUser(socket->socketDescriptor())) {
                trace(TraceModule::error, "Refused a hand-over from another user");
                socket->abort();
                continue;
            }
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                if (socket->bytesAvailable() > kMaxRequest) {
                    socket->abort();
                    return;
                }
                if (!socket->canReadLine()) return;
                QString request = QString::fromUtf8(socket->readLine()).trimmed();
                socket->write("ok\n");
                socket->flush();
                socket->disconnectFromServer();
                received_(request);
            });
        }
    });
}

bool SingleInstance::listening() const {
    return server_->isListening();
}

}  // namespace corvane::ui
