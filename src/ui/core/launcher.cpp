#include "ui/core/launcher.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QMessageBox>
#include <QPointer>
#include <QProcess>

namespace corvane::ui {
namespace {

void sayFailure(const QUrl& url, const QString& what, QWidget* window, const QString& reason) {
    QString fallback;
    if (url.isLocalFile()) {
        fallback = QStringLiteral("It is in ") + QDir::toNativeSeparators(url.toLocalFile()) +
                   QStringLiteral(".");
    } else {
        QApplication::clipboard()->setText(url.toString());
        fallback = QStringLiteral("The link was copied to the clipboard instead.");
    }
    auto* alert =
        new QMessageBox(QMessageBox::Warning, QStringLiteral("Corvane"),
                        QStringLiteral("Could not open ") + what, QMessageBox::Ok, window);
    alert->setInformativeText(reason + QStringLiteral(" ") + fallback);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->setWindowModality(Qt::WindowModal);
    alert->open();
}

}  // namespace

void openOutside(const QUrl& url, const QString& what, QWidget* window) {
    auto* opener = new QProcess(window);
    opener->setProgram(QStringLiteral("xdg-open"));
    opener->setArguments({url.toString(QUrl::FullyEncoded)});
    // Nothing of the opener's reaches the window's own output or input.
    opener->setStandardOutputFile(QProcess::nullDevice());
    opener->setStandardErrorFile(QProcess::nullDevice());
    opener->setStandardInputFile(QProcess::nullDevice());
    QPointer<QWidget> owner(window);
    QObject::connect(opener, &QProcess::errorOccurred, opener,
                     [opener, url, what, owner](QProcess::ProcessError error) {
                         if (error != QProcess::FailedToStart) return;
                         if (owner)
                             sayFailure(url, what, owner,
                                        QStringLiteral("No program to open it is installed "
                                                       "(xdg-open is missing)."));
                         opener->deleteLater();
                     });
    QObject::connect(opener, &QProcess::finished, opener,
                     [opener, url, what, owner](int code, QProcess::ExitStatus status) {
                         if ((status != QProcess::NormalExit || code != 0) && owner)
                             sayFailure(url, what, owner,
                                        QStringLiteral("The desktop has no program for it, or "
                                                       "the program failed."));
                         opener->deleteLater();
                     });
    // Started, not waited for: outside a desktop session xdg-open may wait for the browser.
    opener->start();
}

}  // namespace corvane::ui
