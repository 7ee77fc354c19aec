#include "ui/views/clone_menu.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QMessageBox>
#include <QProcess>
#include <QProgressDialog>
#include <QUrl>
#include <QUrlQuery>

#include "ui/core/icons.h"
#include "ui/core/launcher.h"

namespace corvane::ui {

namespace {

struct KnownClient {
    const char* title;
    const char* scheme;
};

// Both take vscode.git's documented link: <scheme>://vscode.git/clone?url=<clone URL>.
constexpr KnownClient kClients[] = {
    {"Clone with Visual Studio Code", "vscode"},
    {"Clone with VSCodium", "vscodium"},
};

// Whether the desktop file's main group declares a handler of the scheme
// ("MimeType=…;x-scheme-handler/<scheme>;…"). Desktop files separate values with ";", which an
// INI reader takes for a comment, so the lines are read here.
bool handlesScheme(const QString& desktopFile, const QString& scheme) {
    QFile file(desktopFile);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return false;
    bool mainGroup = false;
    while (!file.atEnd()) {
        QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            mainGroup = line == QLatin1String("[Desktop Entry]");
        } else if (mainGroup && line.startsWith(QLatin1String("MimeType="))) {
            return line.mid(9)
                .split(QLatin1Char(';'))
                .contains(QStringLiteral("x-scheme-handler/") + scheme);
        }
    }
    return false;
}

}  // namespace

QString CloneApp::cloneLink(const QString& url) const {
    QUrl link;
    link.setScheme(scheme);
    link.setHost(QStringLiteral("vscode.git"));
    link.setPath(QStringLiteral("/clone"));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("url"), QString::fromLatin1(QUrl::toPercentEncoding(url)));
    link.setQuery(query);
    return link.toString(QUrl::FullyEncoded);
}

QStringList desktopDataFolders() {
    QStringList folders;
    QString home = qEnvironmentVariable("XDG_DATA_HOME");
    folders << (home.isEmpty() ? QDir::homePath() + QStringLiteral("/.local/share") : home);
    QString dirs = qEnvironmentVariable("XDG_DATA_DIRS");
    if (dirs.isEmpty()) dirs = QStringLiteral("/usr/local/share:/usr/share");
    folders << dirs.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    return folders;
}

std::vector<CloneApp> installedCloneApps(const QStringList& dataFolders) {
    std::vector<CloneApp> apps;
    for (const auto& client : kClients) {
        QString scheme = QString::fromLatin1(client.scheme);
        for (const auto& folder : dataFolders) {
            QDir applications(folder + QStringLiteral("/applications"));
            QString found;
            for (const auto& name :
                 applications.entryList({QStringLiteral("*.desktop")}, QDir::Files, QDir::Name)) {
                if (handlesScheme(applications.filePath(name), scheme)) {
                    found = applications.filePath(name);
                    break;
                }
            }
            if (!found.isEmpty()) {
                apps.push_back({QString::fromLatin1(client.title), scheme, found});
                break;
            }
        }
    }
    return apps;
}

CloneMenu::CloneMenu(QString url, QString name, std::vector<CloneApp> apps, QWidget* parent)
    : QMenu(parent), url_(std::move(url)), name_(std::move(name)) {
    for (const auto& app : apps) {
        QString link = app.cloneLink(url_);
        addAction(app.title, this, [this, link, title = app.title] {
            openOutside(QUrl(link), title, parentWidget());
        });
    }
    if (!apps.empty()) addSeparator();
    addAction(copyIcon(), QStringLiteral("Copy git clone command"), this,
              [this] { QApplication::clipboard()->setText(QStringLiteral("git clone ") + url_); });
    addAction(cloneIcon(), QStringLiteral("Clone into folder…"), this,
              [this] { cloneIntoFolder(); });
}

void CloneMenu::cloneIntoFolder() {
    QWidget* window = parentWidget() ? parentWidget()->window() : nullptr;
    QString parent = QFileDialog::getExistingDirectory(window, QStringLiteral("Clone into Folder"),
                                                       QDir::homePath());
    if (parent.isEmpty()) return;
    QString target = QDir(parent).filePath(name_);
    auto* process = new QProcess(window);
    auto* progress = new QProgressDialog(QStringLiteral("Cloning ") + name_ + QStringLiteral("…"),
                                         QStringLiteral("Cancel"), 0, 0, window);
    progress->setWindowTitle(QStringLiteral("Clone"));
    progress->setMinimumDuration(0);
    progress->setAttribute(Qt::WA_DeleteOnClose);
    connect(progress, &QProgressDialog::canceled, process, &QProcess::kill);
    connect(process, &QProcess::finished, window,
            [process, progress, target, window](int code, QProcess::ExitStatus status) {
                QString output = QString::fromLocal8Bit(process->readAllStandardError()).trimmed();
                process->deleteLater();
                progress->close();
                if (status != QProcess::NormalExit || code != 0) {
                    QMessageBox::warning(window, QStringLiteral("Clone"),
                                         QStringLiteral("The clone failed."), QMessageBox::Ok);
                    if (!output.isEmpty()) qWarning("%s", qPrintable(output));
                    return;
                }
                auto answer = QMessageBox::question(
                    window, QStringLiteral("Clone"),
                    QStringLiteral("Cloned into ") + QDir::toNativeSeparators(target) +
                        QStringLiteral(". Open the folder?"),
                    QMessageBox::Open | QMessageBox::Close, QMessageBox::Open);
                if (answer == QMessageBox::Open)
                    openOutside(QUrl::fromLocalFile(target), QStringLiteral("the folder"), window);
            });
    process->start(QStringLiteral("git"), {QStringLiteral("clone"), url_, target});
    progress->show();
}

}  // namespace corvane::ui
