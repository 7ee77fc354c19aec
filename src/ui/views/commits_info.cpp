#include "ui/views/commits_info.h"

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

#include "objects/commit.h"
#include "ui/core/action_row_delegate.h"
#include "ui/core/text.h"
#include "ui/views/refs_popup.h"

namespace corvane::ui {

namespace {

constexpr std::string_view kBranchHead = "ref: refs/heads/";
constexpr std::string_view kTagHead = "ref: refs/tags/";

// The branch or tag a symbolic head names.
std::string refName(const std::string& head) {
    return head.substr(head.starts_with(kBranchHead) ? kBranchHead.size() : kTagHead.size());
}

}  // namespace

QStringList commitInfo(const std::string& author, const std::string& committer,
                       const QString& age) {
    QString when = age.isEmpty() ? QString() : QLatin1Char(' ') + age;
    if (author == committer)
        return {QString(), toQString(author), QStringLiteral(" committed") + when};
    return {QString(), toQString(author), QStringLiteral(" authored and "), toQString(committer),
            QStringLiteral(" committed") + when};
}

CommitsModel::CommitsModel(std::function<void(const std::string&)> want, QObject* parent)
    : QAbstractListModel(parent), want_(std::move(want)) {}

int CommitsModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(commits_.size());
}

QVariant CommitsModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || static_cast<std::size_t>(index.row()) >= commits_.size()) return {};
    const std::string& id = commits_[static_cast<std::size_t>(index.row())];
    auto row = rows_.find(id);
    if (role == ActionRowDelegate::idRole) return toQString(id);
    if (row == rows_.end()) {
        // Drawn before it is read: ask for it once.
        if ((role == Qt::DisplayRole || role == ActionRowDelegate::placeholderRole) &&
            pending_.insert(id).second)
            want_(id);
        return role == ActionRowDelegate::placeholderRole ? QVariant(true) : QVariant();
    }
    switch (role) {
        case Qt::DisplayRole:
            return row->second.title;
        case Qt::ToolTipRole:
            return row->second.message;
        case ActionRowDelegate::infoRole:
            return row->second.info;
        case ActionRowDelegate::placeholderRole:
            return false;
        default:
            return {};
    }
}

void CommitsModel::reset(std::vector<std::string> commits) {
    beginResetModel();
    commits_ = std::move(commits);
    pending_.clear();  // asked again when drawn; answers still under way are still taken
    endResetModel();
}

void CommitsModel::setRow(const std::string& id, CommitRow row) {
    rows_[id] = std::move(row);
    pending_.erase(id);
    for (std::size_t i = 0; i < commits_.size(); ++i) {
        if (commits_[i] == id)
            emit dataChanged(index(static_cast<int>(i)), index(static_cast<int>(i)));
    }
}

CommitsInfo::CommitsInfo(AppState& state, ObjectLoader& loader, QWidget* parent)
    : QWidget(parent),
      state_(state),
      loader_(loader),
      refPopUp_(new RefsPopUp(state, this)),
      tableView_(new QListView(this)),
      model_(new CommitsModel([this](const std::string& id) { load(id); }, this)),
      commitHeadLabel_(new QLabel(this)),
      backButton_(new QPushButton(this)) {
    tableView_->setObjectName(QStringLiteral("commits"));
    commitHeadLabel_->setObjectName(QStringLiteral("commitHead"));
    backButton_->setObjectName(QStringLiteral("backToBranch"));
    connect(backButton_, &QPushButton::clicked, this, &CommitsInfo::goBack);
    auto* delegate =
        new ActionRowDelegate(QStringLiteral("Copy id to clipboard"),
                              QStringLiteral("Show the history up to this commit"), tableView_);
    tableView_->setModel(model_);
    tableView_->setItemDelegate(delegate);
    tableView_->setUniformItemSizes(true);
    tableView_->setMouseTracking(true);
    tableView_->setFrameShape(QFrame::NoFrame);
    connect(delegate, &ActionRowDelegate::segmentClicked, this,
            [this](const QModelIndex& index, int segment) { segmentAction(index.row(), segment); });

    auto* top = new QHBoxLayout;
    top->setContentsMargins(8, 6, 8, 6);
    top->addWidget(refPopUp_);
    top->addSpacing(8);
    top->addWidget(commitHeadLabel_);
    top->addSpacing(8);
    top->addWidget(backButton_);
    top->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(top);
    layout->addWidget(tableView_, 1);

    refresh({});
    // Once a minute while shown, the rows are read again: their ages move on, and a commit that
    // could not be read is tried again.
    auto* ager = new QTimer(this);
    connect(ager, &QTimer::timeout, this, [this] {
        if (isVisible()) refresh(placeOf(*tableView_, ActionRowDelegate::idRole));
    });
    ager->start(60 * 1000);
    receiver_ = EventReceiver::registerWith(state_, [this](const Event& event) {
        if (!changesShownHead(state_, event)) return;
        // A push to the branch shown keeps the reader where they were; another head starts over.
        bool sameHead = std::holds_alternative<event::RepositoryModified>(event);
        refresh(sameHead ? placeOf(*tableView_, ActionRowDelegate::idRole) : ViewPlace{});
    });
}

void CommitsInfo::refresh(const ViewPlace& place) {
    ticket_.renew();
    const auto& repository = state_.selectedRepository();
    bool hasBranches = !repository->branchNames().empty();
    refPopUp_->setVisible(hasBranches);
    model_->reset(hasBranches ? repository->revList() : std::vector<std::string>{});
    restorePlace(*tableView_, place, ActionRowDelegate::idRole);

    const std::string& head = repository->state().head;
    bool onCommit = hasBranches && !head.starts_with("ref: ");
    auto back = onCommit ? headToGoBackTo() : std::nullopt;
    commitHeadLabel_->setVisible(onCommit);
    backButton_->setVisible(back.has_value());
    if (!onCommit) return;
    commitHeadLabel_->setText(
        QStringLiteral("The history up to commit %1").arg(shortId(toQString(head))));
    if (back) backButton_->setText(QStringLiteral("Show %1").arg(toQString(refName(*back))));
}

std::optional<std::string> CommitsInfo::headToGoBackTo() const {
    const auto& repository = state_.selectedRepository();
    if (!headBefore_.empty() && headBeforeIn_ == repository->url()) return headBefore_;
    if (auto branch = Repository::defaultBranch(*repository->content()))
        return std::string(kBranchHead) + *branch;
    return std::nullopt;
}

void CommitsInfo::goBack() {
    auto head = headToGoBackTo();
    if (!head) return;
    const auto& repository = state_.selectedRepository();
    std::string name = refName(*head);
    if (head->starts_with(kBranchHead)) {
        repository->setHead(name);
        state_.send(event::BranchSelected{name});
        return;
    }
    auto viewState = repository->state();
    viewState.head = *head;  // a new head empties the cached history
    repository->setState(viewState);
    state_.send(event::TagSelected{name});
}

void CommitsInfo::load(const std::string& id) {
    loader_.load(
        state_.selectedRepository(), id,
        [this, id](const std::optional<Object>& object, const std::string& error) {
            if (!object) {
                model_->setRow(id, {QStringLiteral("Commit ") + shortId(toQString(id)),
                                    toQString(error),
                                    {toQString(error)}});
                return;
            }
            try {
                // Shown as it is written, whatever its encoding.
                auto commit = parseCommit(*object, TextCheck::none);
                QString age;
                if (commit.committer.timestamp) {
                    auto when = std::chrono::system_clock::time_point(std::chrono::seconds(
                        static_cast<std::int64_t>(*commit.committer.timestamp)));
                    age = toQString(dateFormatter_.string(when));
                }
                model_->setRow(id, {toQString(commit.title()), toQString(commit.body).trimmed(),
                                    commitInfo(commit.author.name, commit.committer.name, age)});
            } catch (const std::exception& failure) {
                model_->setRow(id, {QStringLiteral("Commit ") + shortId(toQString(id)),
                                    toQString(failure.what()),
                                    {toQString(failure.what())}});
            }
        },
        ticket_.flag());
}

void CommitsInfo::segmentAction(int row, int segment) {
    if (row < 0 || static_cast<std::size_t>(row) >= model_->commits().size()) return;
    const std::string& id = model_->commits()[static_cast<std::size_t>(row)];
    if (segment == ActionRowDelegate::copySegment) {
        QApplication::clipboard()->setText(toQString(id));
        return;
    }
    const auto& repository = state_.selectedRepository();
    auto viewState = repository->state();
    if (viewState.head.starts_with("ref: ")) {
        headBefore_ = viewState.head;
        headBeforeIn_ = repository->url();
    }
    viewState.head = id;  // detached; a new head empties the cached history
    repository->setState(viewState);
    state_.send(event::CommitSelected{id});
}

}  // namespace corvane::ui
