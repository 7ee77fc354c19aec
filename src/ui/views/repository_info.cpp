#include "ui/views/repository_info.h"

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QTabBar>
#include <QTabWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include "ui/core/icons.h"
#include "ui/core/selecting_line_edit.h"
#include "ui/core/text.h"

namespace corvane::ui {

namespace {

// Until a view's own work lands, its tab says what it will hold.
QWidget* placeholder(const QString& title, const QString& text) {
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    layout->addStretch(1);
    auto* heading = new QLabel(title);
    QFont font = heading->font();
    font.setPointSizeF(font.pointSizeF() * 1.3);
    heading->setFont(font);
    heading->setAlignment(Qt::AlignCenter);
    heading->setEnabled(false);
    auto* body = new QLabel(text);
    body->setAlignment(Qt::AlignCenter);
    body->setWordWrap(true);
    body->setEnabled(false);
    layout->addWidget(heading);
    layout->addWidget(body);
    layout->addStretch(2);
    return page;
}

}  // namespace

RepositoryInfo::RepositoryInfo(AppState& state, std::vector<CloneApp> cloneApps, QWidget* parent)
    : QWidget(parent),
      state_(state),
      cloneApps_(std::move(cloneApps)),
      topStack_(new QWidget(this)),
      repositoryButton_(new QToolButton(topStack_)),
      urlField_(new SelectingLineEdit(topStack_)),
      copyButton_(new QToolButton(topStack_)),
      cloneButton_(new QToolButton(topStack_)),
      tabView_(new QTabWidget(this)),
      emptyLabel_(new QLabel(QStringLiteral("No Repository Selected"), this)) {
    // Names that tests on a real display find the widgets by (see test_probe.h).
    repositoryButton_->setObjectName(QStringLiteral("repositoryName"));
    urlField_->setObjectName(QStringLiteral("cloneUrl"));
    emptyLabel_->setObjectName(QStringLiteral("noRepository"));
    copyButton_->setObjectName(QStringLiteral("copyUrl"));
    cloneButton_->setObjectName(QStringLiteral("clone"));
    QFont nameFont = repositoryButton_->font();
    nameFont.setPointSizeF(nameFont.pointSizeF() * 1.5);
    nameFont.setWeight(QFont::DemiBold);
    repositoryButton_->setFont(nameFont);
    repositoryButton_->setAutoRaise(true);
    repositoryButton_->setCursor(Qt::PointingHandCursor);

    urlField_->setReadOnly(true);
    copyButton_->setIcon(copyIcon());
    copyButton_->setToolTip(QStringLiteral("Copy clone URL to clipboard"));
    copyButton_->setAutoRaise(true);
    cloneButton_->setIcon(cloneIcon());
    cloneButton_->setText(QStringLiteral("Clone"));
    cloneButton_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    cloneButton_->setToolTip(QStringLiteral("Clone using a GUI git client"));
    cloneButton_->setAutoRaise(true);
    cloneButton_->setPopupMode(QToolButton::InstantPopup);

    auto* urlRow = new QHBoxLayout;
    urlRow->setSpacing(4);
    urlRow->addWidget(urlField_, 1);
    urlRow->addWidget(copyButton_);
    urlRow->addWidget(cloneButton_);
    auto* top = new QVBoxLayout(topStack_);
    top->setContentsMargins(12, 10, 12, 6);
    top->setSpacing(6);
    auto* nameRow = new QHBoxLayout;
    nameRow->addWidget(repositoryButton_);
    nameRow->addStretch(1);
    top->addLayout(nameRow);
    top->addLayout(urlRow);

    tabView_->setDocumentMode(true);
    tabView_->tabBar()->setObjectName(QStringLiteral("views"));
    tabView_->tabBar()->setExpanding(false);
    const std::pair<const char*, const char*> pages[] = {
        {"Files", "The repository's files will show here."},
        {"Commits", "The history of the branch will show here."},
        {"Branches", "The branches will show here."},
        {"Tags", "The tags will show here."},
        {"Contributors", "The people who share it will show here."},
    };
    for (const auto& [title, text] : pages) {
        tabView_->addTab(placeholder(QString::fromLatin1(title), QString::fromLatin1(text)),
                         QString::fromLatin1(title));
    }

    emptyLabel_->setAlignment(Qt::AlignCenter);
    emptyLabel_->setEnabled(false);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(topStack_);
    layout->addWidget(tabView_, 1);
    layout->addWidget(emptyLabel_, 1);

    connect(copyButton_, &QToolButton::clicked, this,
            [this] { QApplication::clipboard()->setText(urlField_->text()); });
    connect(repositoryButton_, &QToolButton::clicked, this,
            [this] { showView(Repository::View::files); });
    connect(tabView_, &QTabWidget::currentChanged, this, [this](int index) {
        if (!selectingTab_ && index >= 0) showView(static_cast<Repository::View>(index));
    });
    refresh();
    receiver_ =
        EventReceiver::registerWith(state_, [this](const Event& event) { handleEvent(event); });
}

QTabBar* RepositoryInfo::tabBar() const {
    return tabView_->tabBar();
}

QString RepositoryInfo::tabText(Repository::View view) const {
    return tabView_->tabText(static_cast<int>(view));
}

void RepositoryInfo::setViewWidget(Repository::View view, QWidget* widget) {
    int index = static_cast<int>(view);
    QWidget* old = tabView_->widget(index);
    QString text = tabView_->tabText(index);
    selectingTab_ = true;
    tabView_->insertTab(index, widget, text);
    tabView_->removeTab(index + 1);
    selectingTab_ = false;
    old->deleteLater();
}

void RepositoryInfo::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    showName();
}

void RepositoryInfo::showName() {
    // The button's frame and margins take about two characters' width.
    int room = width() - 24 - 2 * repositoryButton_->fontMetrics().averageCharWidth();
    repositoryButton_->setText(
        room > 0 ? repositoryButton_->fontMetrics().elidedText(name_, Qt::ElideMiddle, room)
                 : name_);
}

void RepositoryInfo::refresh() {
    const auto& repository = state_.selectedRepository();
    bool none = repository->id().empty();
    topStack_->setVisible(!none);
    tabView_->setVisible(!none);
    emptyLabel_->setVisible(none);
    if (none) return;

    name_ = toQString(repository->name());
    showName();
    auto size = repository->estimatedSize();
    repositoryButton_->setToolTip(
        size < 1 ? name_
                 : name_ + QStringLiteral("\nEstimated size: ") +
                       QLocale().formattedDataSize(size, 1, QLocale::DataSizeSIFormat));
    QString url = toQString(repository->url());
    urlField_->setText(url);
    urlField_->setCursorPosition(0);
    // Copying the command and cloning into a folder always apply, so the button stays.
    auto* menu = new CloneMenu(url, toQString(repository->name()), cloneApps_, cloneButton_);
    if (auto* old = cloneButton_->menu()) old->deleteLater();
    cloneButton_->setMenu(menu);

    auto content = repository->content();
    auto setCount = [&](Repository::View view, std::size_t count, const char* singular,
                        const char* plural) {
        tabView_->setTabText(static_cast<int>(view), counted(count, QString::fromLatin1(singular),
                                                             QString::fromLatin1(plural)));
    };
    setCount(Repository::View::commits, content->commits.size(), "Commit", "Commits");
    setCount(Repository::View::branches, repository->branchNames().size(), "Branch", "Branches");
    setCount(Repository::View::tags, repository->tagNames().size(), "Tag", "Tags");
    setCount(Repository::View::contributors, repository->participants().size(), "Contributor",
             "Contributors");
    selectTab(repository->state().selectedView);
}

void RepositoryInfo::showView(Repository::View view) {
    const auto& repository = state_.selectedRepository();
    auto viewState = repository->state();
    viewState.selectedView = view;
    repository->setState(viewState);
    state_.send(event::ShowView{view});
    selectTab(view);  // at once; the event confirms it
}

void RepositoryInfo::selectTab(Repository::View view) {
    selectingTab_ = true;
    tabView_->setCurrentIndex(static_cast<int>(view));
    selectingTab_ = false;
}

void RepositoryInfo::handleEvent(const Event& event) {
    if (std::holds_alternative<event::RepositorySelected>(event)) {
        refresh();
    } else if (const auto* modified = std::get_if<event::RepositoryModified>(&event)) {
        if (modified->url == state_.selectedRepository()->url()) refresh();
    } else if (std::holds_alternative<event::ParticipantsModified>(event)) {
        refresh();
    } else if (const auto* shown = std::get_if<event::ShowView>(&event)) {
        selectTab(shown->view);
    } else if (std::holds_alternative<event::BranchSelected>(event) ||
               std::holds_alternative<event::TagSelected>(event) ||
               std::holds_alternative<event::CommitSelected>(event)) {
        auto visible = static_cast<Repository::View>(tabView_->currentIndex());
        if (visible != Repository::View::files && visible != Repository::View::commits)
            showView(Repository::View::files);
    }
}

}  // namespace corvane::ui
