#include "ui/views/main_window.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSettings>
#include <QSplitter>
#include <QVBoxLayout>

#include "ui/core/icons.h"
#include "ui/core/launcher.h"
#include "ui/core/text.h"
#include "ui/views/about_dialog.h"
#include "ui/views/add_repository_dialog.h"
#include "ui/views/commits_info.h"
#include "ui/views/contributors_info.h"
#include "ui/views/file_browser.h"
#include "ui/views/refs_list.h"
#include "ui/views/repository_info.h"
#include "ui/views/repository_list.h"

namespace corvane::ui {

MainWindowController::MainWindowController(Application& application,
                                           std::vector<CloneApp> cloneApps)
    : application_(application),
      loader_(std::make_unique<ObjectLoader>(application.state())),
      splitView_(new QSplitter(Qt::Horizontal, this)),
      repositoryList_(new RepositoryList(application.state(), splitView_)),
      repositoryInfo_(new RepositoryInfo(application.state(), std::move(cloneApps), splitView_)),
      serverNotice_(new QLabel(this)) {
    setWindowTitle(QStringLiteral("Corvane"));
    setWindowIcon(applicationIcon());
    splitView_->addWidget(repositoryList_);
    splitView_->addWidget(repositoryInfo_);
    AppState& state = application.state();
    repositoryInfo_->setViewWidget(Repository::View::files,
                                   new FileBrowser(state, *loader_, nullptr));
    repositoryInfo_->setViewWidget(Repository::View::commits,
                                   new CommitsInfo(state, *loader_, nullptr));
    repositoryInfo_->setViewWidget(
        Repository::View::branches,
        new RefsList(RefsList::Kind::branches, state, *loader_, nullptr));
    repositoryInfo_->setViewWidget(Repository::View::tags,
                                   new RefsList(RefsList::Kind::tags, state, *loader_, nullptr));
    repositoryInfo_->setViewWidget(Repository::View::contributors,
                                   new ContributorsInfo(state, nullptr));
    splitView_->setChildrenCollapsible(false);
    splitView_->setStretchFactor(0, 0);
    splitView_->setStretchFactor(1, 1);
    int unit = fontMetrics().averageCharWidth();
    repositoryList_->setMinimumWidth(unit * 22);
    repositoryInfo_->setMinimumWidth(unit * 50);
    splitView_->setSizes({unit * 32, unit * 90});

    serverNotice_->setWordWrap(true);
    serverNotice_->setVisible(false);
    serverNotice_->setContentsMargins(10, 6, 10, 6);
    serverNotice_->setAutoFillBackground(true);
    QPalette notice = serverNotice_->palette();
    notice.setColor(QPalette::Window, QColor(0xf6, 0x74, 0x00, 0x40));
    serverNotice_->setPalette(notice);

    auto* central = new QWidget(this);
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(serverNotice_);
    layout->addWidget(splitView_, 1);
    setCentralWidget(central);
    buildMenus();
    resize(unit * 130, fontMetrics().height() * 38);
    restoreLayout();

    receiver_ = EventReceiver::registerWith(application_.state(),
                                            [this](const Event& event) { handleEvent(event); });
}

namespace {

// The window as it was left: $XDG_CONFIG_HOME/corvane/window.ini.
std::unique_ptr<QSettings> windowSettings() {
    return std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope,
                                       QStringLiteral("corvane"), QStringLiteral("window"));
}

}  // namespace

MainWindowController::~MainWindowController() {
    saveLayout();
}

void MainWindowController::restoreLayout() {
    auto settings = windowSettings();
    restoreGeometry(settings->value(QStringLiteral("geometry")).toByteArray());
    splitView_->restoreState(settings->value(QStringLiteral("split")).toByteArray());
    auto selected = settings->value(QStringLiteral("selected")).toString();
    if (!selected.isEmpty()) selectionToRestore_ = toStdString(selected);
}

void MainWindowController::saveLayout() {
    auto settings = windowSettings();
    settings->setValue(QStringLiteral("geometry"), saveGeometry());
    settings->setValue(QStringLiteral("split"), splitView_->saveState());
    const auto& selected = application_.state().selectedRepository();
    // Before the list came, the one to restore is still the choice.
    std::string url = selected->id().empty() ? selectionToRestore_.value_or("") : selected->url();
    settings->setValue(QStringLiteral("selected"), toQString(url));
}

void MainWindowController::closeEvent(QCloseEvent* event) {
    // Without a tray, closing the window quits, and git clients lose the daemon: a person who
    // closes it is told so first. Quitting (the menu, a signal) is not asked.
    bool byPerson = event->spontaneous() || closingAsked_;
    if (byPerson && QApplication::quitOnLastWindowClosed() && !closingConfirmed_) {
        event->ignore();
        auto* confirm = new QMessageBox(QMessageBox::Question, QStringLiteral("Close Corvane"),
                                        QStringLiteral("Closing the window stops the git daemon."),
                                        QMessageBox::NoButton, this);
        confirm->setInformativeText(QStringLiteral(
            "Git clients will not reach your repositories until Corvane is started again."));
        auto* quit = confirm->addButton(QStringLiteral("Close"), QMessageBox::AcceptRole);
        confirm->addButton(QMessageBox::Cancel);
        confirm->setDefaultButton(QMessageBox::Cancel);
        connect(confirm, &QMessageBox::buttonClicked, this, [this, quit](QAbstractButton* button) {
            if (button != static_cast<QAbstractButton*>(quit)) return;
            closingConfirmed_ = true;
            close();
        });
        presentAlert(confirm);
        return;
    }
    saveLayout();
    QMainWindow::closeEvent(event);
}

void MainWindowController::buildMenus() {
    auto* file = menuBar()->addMenu(QStringLiteral("&File"));
    file->addAction(QIcon::fromTheme(QStringLiteral("list-add")),
                    QStringLiteral("&New Repository…"), QKeySequence::New, this,
                    [this] { application_.createRepositoryMenuAction(); });
    file->addAction(QStringLiteral("&Join Repository…"), QKeySequence(Qt::CTRL | Qt::Key_J), this,
                    [this] { application_.joinRepositoryMenuAction(); });
    file->addSeparator();
    file->addAction(QIcon::fromTheme(QStringLiteral("edit-delete")),
                    QStringLiteral("&Delete Repository…"), QKeySequence(Qt::CTRL | Qt::Key_Delete),
                    this, [this] { application_.deleteRepositoryMenuAction(); });
    file->addSeparator();
    file->addAction(QStringLiteral("&Close Window"), QKeySequence::Close, this, [this] {
        closingAsked_ = true;
        close();
        closingAsked_ = false;
    });
    file->addAction(QIcon::fromTheme(QStringLiteral("application-exit")), QStringLiteral("&Quit"),
                    QKeySequence::Quit, qApp, &QApplication::quit);

    auto* view = menuBar()->addMenu(QStringLiteral("&View"));
    view->addAction(QIcon::fromTheme(QStringLiteral("view-refresh")), QStringLiteral("&Reload"),
                    QKeySequence::Refresh, this,
                    [this] { application_.reloadRepositoryMenuAction(); });
    view->addAction(QStringLiteral("Reload &All Repositories"),
                    QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R), this,
                    [this] { application_.reloadAllRepositoriesMenuAction(); });

    auto* help = menuBar()->addMenu(QStringLiteral("&Help"));
    help->addAction(QStringLiteral("Corvane &Website"), this, [this] {
        openOutside(QUrl(QString::fromLatin1(Application::kWebsite)), QStringLiteral("the website"),
                    this);
    });
    help->addSeparator();
    help->addAction(applicationIcon(), QStringLiteral("&About Corvane"), this,
                    [this] { showAbout(); });
}

void MainWindowController::showServerProblem(const QString& text) {
    serverNotice_->setText(text);
    serverNotice_->setVisible(true);
}

void MainWindowController::showAbout() {
    auto* about = new AboutDialog(this);
    about->setAttribute(Qt::WA_DeleteOnClose);
    about->show();
}

void MainWindowController::bringToFront() {
    show();
    setWindowState(windowState() & ~Qt::WindowMinimized);
    raise();
    activateWindow();
}

void MainWindowController::showAddSheet(int tab) {
    if (addSheet_) addSheet_->close();
    addSheet_ = new AddRepositoryDialog(application_.state(), tab, this);
    addSheet_->setAttribute(Qt::WA_DeleteOnClose);
    addSheet_->setWindowModality(Qt::WindowModal);
    bringToFront();
    addSheet_->open();
}

void MainWindowController::joinWithLink(const QString& link) {
    showAddSheet(1);
    addSheet_->joinURLField()->setText(link);
}

void MainWindowController::presentAlert(QMessageBox* alert) {
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->setWindowModality(Qt::WindowModal);
    // One at a time, in the order they came: an alert closed by the next would go unread.
    connect(alert, &QDialog::finished, this, &MainWindowController::showNextAlert);
    waitingAlerts_.push_back(alert);
    if (!alert_) showNextAlert();
}

void MainWindowController::showNextAlert() {
    alert_ = nullptr;
    while (!waitingAlerts_.empty()) {
        QPointer<QMessageBox> next = waitingAlerts_.front();
        waitingAlerts_.pop_front();
        if (!next) continue;
        alert_ = next;
        bringToFront();
        next->open();
        return;
    }
}

void MainWindowController::handleEvent(const Event& event) {
    if (std::holds_alternative<event::RepositoriesModified>(event) && selectionToRestore_) {
        // The repository open when the window was last closed, once the list has it.
        auto url = *selectionToRestore_;
        selectionToRestore_.reset();
        if (application_.state().repositories().contains(url) &&
            application_.state().selectedRepository()->id().empty())
            application_.state().selectRepository(url);
        return;
    }
    if (const auto* confirm = std::get_if<event::ShowConfirmDeleteRepository>(&event)) {
        auto* alert = new QMessageBox(
            QMessageBox::Warning, QStringLiteral("Delete Repository"),
            QStringLiteral("Are you sure you want to delete ") +
                QLocale().quoteString(toQString(confirm->repository->name())) + QStringLiteral("?"),
            QMessageBox::NoButton, this);
        alert->setInformativeText(
            QStringLiteral("All repository data will be deleted from the cloud store. Your local "
                           "repositories will not be affected."));
        auto* remove = alert->addButton(QStringLiteral("Delete"), QMessageBox::DestructiveRole);
        alert->addButton(QMessageBox::Cancel);
        alert->setDefaultButton(QMessageBox::Cancel);
        std::string url = confirm->repository->url();
        connect(alert, &QMessageBox::buttonClicked, this,
                [this, remove, url](QAbstractButton* button) {
                    if (button == static_cast<QAbstractButton*>(remove))
                        application_.state().deleteRepository(url);
                });
        presentAlert(alert);
    } else if (const auto* error = std::get_if<event::ShowError>(&event)) {
        auto* alert = new QMessageBox(QMessageBox::Warning, QStringLiteral("Corvane"),
                                      toQString(error->message), QMessageBox::Ok, this);
        alert->setInformativeText(toQString(error->description));
        presentAlert(alert);
    } else if (std::holds_alternative<event::ShowMainWindow>(event)) {
        bringToFront();
    } else if (std::holds_alternative<event::ShowCreateRepository>(event)) {
        showAddSheet(0);
    } else if (std::holds_alternative<event::ShowJoinRepository>(event)) {
        showAddSheet(1);
    } else if (std::holds_alternative<event::ShowSignedOut>(event)) {
        auto* alert = new QMessageBox(QMessageBox::Warning, QStringLiteral("Corvane"),
                                      QStringLiteral("You are not signed in to the cloud store"),
                                      QMessageBox::Ok, this);
        alert->setInformativeText(QStringLiteral(
            "Please sign in to your cloud store account and make sure the store Corvane uses "
            "(CORVANE_CLOUD) is reachable."));
        presentAlert(alert);
    }
}

}  // namespace corvane::ui
