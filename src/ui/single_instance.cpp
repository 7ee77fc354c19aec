#include "ui/single_instance.h"

#include <unistd.h>

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>

namespace corvane::ui {

namespace {

constexpr int kTimeoutMilliseconds = 3000;
constexpr qint64 kMaxRequest = 64 * 1024;

}  // namespace

QString SingleInstance::socketPath() {
    QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty()) return QDir(runtime).filePath(QStringLiteral("corvane.socket"));
    return QDir(QDir::tempPath())
        .filePath(QStringLiteral("corvane-%1.socket").arg(static_cast<qulonglong>(::getuid())));
}

bool SingleInstance::handOver(const QString& path, const QString& request) {
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(kTimeoutMilliseconds)) return false;
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
