#include "ui/views/repository_list.h"

#include <QAction>
#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QStyledItemDelegate>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>

#include "ui/core/icons.h"
#include "ui/core/text.h"

namespace corvane::ui {

namespace {

bool sortsBefore(const std::shared_ptr<Repository>& a, const std::shared_ptr<Repository>& b) {
    return QString::localeAwareCompare(toQString(a->name()), toQString(b->name())) < 0;
}

// Two lines per repository: the name, and under it the date of its last change (or
// "Creating…") in a quieter colour; a shared repository carries the shared mark on the right.
class RepositoryRowDelegate : public QStyledItemDelegate {
  public:
    using QStyledItemDelegate::QStyledItemDelegate;

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        QFontMetrics metrics(option.font);
        int lines = index.data(RepositoryListModel::addRowRole).toBool() ? 1 : 2;
        int padding = option.widget ? option.widget->style()->pixelMetric(
                                          QStyle::PM_FocusFrameVMargin, &option, option.widget)
                                    : 2;
        return {metrics.averageCharWidth() * 24,
                lines * metrics.height() + 4 * padding + (lines == 1 ? 12 : 6)};
    }

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override {
        if (index.data(RepositoryListModel::addRowRole).toBool()) return;  // the button's row
        QStyleOptionViewItem item = option;
        initStyleOption(&item, index);
        const QWidget* widget = option.widget;
        QStyle* style = widget ? widget->style() : QApplication::style();
        // The row's background and selection as the style draws them, without its text.
        item.text.clear();
        style->drawControl(QStyle::CE_ItemViewItem, &item, painter, widget);

        bool selected = option.state & QStyle::State_Selected;
        QPalette::ColorGroup group =
            option.state & QStyle::State_Active ? QPalette::Active : QPalette::Inactive;
        QColor text =
            option.palette.color(group, selected ? QPalette::HighlightedText : QPalette::Text);
        QColor quiet = text;
        quiet.setAlphaF(0.65f);

        QRect area = option.rect.adjusted(8, 4, -8, -4);
        bool shared = index.data(RepositoryListModel::sharedRole).toBool();
        if (shared) {
            int side = QFontMetrics(option.font).height();
            QRect mark(area.right() - side + 1, area.center().y() - side / 2, side, side);
            sharedMarkIcon().paint(painter, mark, Qt::AlignCenter,
                                   selected ? QIcon::Selected : QIcon::Normal);
            area.setRight(mark.left() - 6);
        }
        QFont nameFont = option.font;
        nameFont.setWeight(QFont::DemiBold);
        QFontMetrics nameMetrics(nameFont);
        QFont statusFont = option.font;
        statusFont.setPointSizeF(option.font.pointSizeF() * 0.9);
        QFontMetrics statusMetrics(statusFont);
        int total = nameMetrics.height() + statusMetrics.height();
        int top = area.top() + (area.height() - total) / 2;

        painter->save();
        painter->setFont(nameFont);
        painter->setPen(text);
        QRect nameRect(area.left(), top, area.width(), nameMetrics.height());
        painter->drawText(nameRect, Qt::AlignLeft | Qt::AlignVCenter,
                          nameMetrics.elidedText(index.data(Qt::DisplayRole).toString(),
                                                 Qt::ElideRight, nameRect.width()));
        painter->setFont(statusFont);
        painter->setPen(quiet);
        QRect statusRect(area.left(), nameRect.bottom() + 1, area.width(), statusMetrics.height());
        painter->drawText(
            statusRect, Qt::AlignLeft | Qt::AlignVCenter,
            statusMetrics.elidedText(index.data(RepositoryListModel::statusRole).toString(),
                                     Qt::ElideRight, statusRect.width()));
        // The keyboard's place: the style's focus frame vanishes into the selection's colour.
        if (option.state & QStyle::State_HasFocus) {
            QColor ring = selected ? text : option.palette.color(group, QPalette::Highlight);
            painter->setPen(QPen(ring, 1, Qt::DashLine));
            painter->setBrush(Qt::NoBrush);
            painter->drawRect(option.rect.adjusted(2, 2, -3, -3));
        }
        painter->restore();
    }
};

}  // namespace

RepositoryListModel::RepositoryListModel(QObject* parent) : QAbstractListModel(parent) {}

int RepositoryListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(repositories_.size()) + 1;
}

QVariant RepositoryListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid()) return {};
    auto row = static_cast<std::size_t>(index.row());
    if (row == repositories_.size()) {
        if (role == addRowRole) return true;
        return {};
    }
    if (row > repositories_.size()) return {};
    const auto& repository = *repositories_[row];
    switch (role) {
        case Qt::DisplayRole:
            return toQString(repository.name());
        case Qt::ToolTipRole:
            // An error is cut short in the row: whole here.
            return toQString(repository.name() +
                             (repository.loadError() ? "\n" + *repository.loadError() : ""));
        case statusRole:
            if (repository.loadError()) return toQString(*repository.loadError());
            // Without participants it has no share yet: it is still being created.
            if (repository.participants().empty()) return QStringLiteral("Creating…");
            return toQString(dateFormatter_.string(repository.modificationDate()));
        case sharedRole:
            return repository.participants().size() > 1;
        case addRowRole:
            return false;
        default:
            return {};
    }
}

Qt::ItemFlags RepositoryListModel::flags(const QModelIndex& index) const {
    if (!index.isValid()) return Qt::NoItemFlags;
    // Only repository rows can be selected.
    if (static_cast<std::size_t>(index.row()) >= repositories_.size()) return Qt::ItemIsEnabled;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable;
}

std::optional<int> RepositoryListModel::rowOf(const std::string& url) const {
    auto found = std::find_if(repositories_.begin(), repositories_.end(),
                              [&](const auto& repository) { return repository->url() == url; });
    if (found == repositories_.end()) return std::nullopt;
    return static_cast<int>(found - repositories_.begin());
}

int RepositoryListModel::add(std::shared_ptr<Repository> repository) {
    auto place =
        std::upper_bound(repositories_.begin(), repositories_.end(), repository, sortsBefore);
    int row = static_cast<int>(place - repositories_.begin());
    beginInsertRows({}, row, row);
    repositories_.insert(place, std::move(repository));
    endInsertRows();
    return row;
}

void RepositoryListModel::replace(int row, std::shared_ptr<Repository> repository) {
    repositories_[static_cast<std::size_t>(row)] = std::move(repository);
    emit dataChanged(index(row), index(row));
}

void RepositoryListModel::remove(int row) {
    beginRemoveRows({}, row, row);
    repositories_.erase(repositories_.begin() + row);
    endRemoveRows();
}

void RepositoryListModel::reset(std::vector<std::shared_ptr<Repository>> repositories) {
    std::stable_sort(repositories.begin(), repositories.end(), sortsBefore);
    beginResetModel();
    repositories_ = std::move(repositories);
    endResetModel();
}

void RepositoryListModel::redrawAll() {
    if (!repositories_.empty())
        emit dataChanged(index(0), index(static_cast<int>(repositories_.size()) - 1));
}

RepositoryList::RepositoryList(AppState& state, QWidget* parent)
    : QWidget(parent),
      state_(state),
      model_(new RepositoryListModel(this)),
      tableView_(new QListView(this)),
      statusTextField_(new QLabel(this)),
      progressIndicator_(new QProgressBar(this)),
      refresher_(new QTimer(this)),
      follower_(new QTimer(this)) {
    tableView_->setModel(model_);
    tableView_->setItemDelegate(new RepositoryRowDelegate(tableView_));
    tableView_->setSelectionMode(QAbstractItemView::SingleSelection);
    tableView_->setUniformItemSizes(false);
    tableView_->setContextMenuPolicy(Qt::CustomContextMenu);
    tableView_->setFrameShape(QFrame::NoFrame);

    tableView_->setObjectName(QStringLiteral("repositories"));
    progressIndicator_->setRange(0, 0);  // busy, without a fraction
    progressIndicator_->setTextVisible(false);
    progressIndicator_->setMaximumWidth(48);
    progressIndicator_->setMaximumHeight(statusTextField_->sizeHint().height() / 2 + 2);
    statusTextField_->setTextInteractionFlags(Qt::NoTextInteraction);

    auto* statusRow = new QHBoxLayout;
    statusRow->setContentsMargins(8, 4, 8, 6);
    statusRow->addWidget(progressIndicator_);
    statusRow->addWidget(statusTextField_, 1);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(tableView_, 1);
    layout->addLayout(statusRow);

    // The selection, not the current row: a mouse press moves the current row before it selects
    // it, and a click would open nothing.
    connect(tableView_->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] {
        auto selected = tableView_->selectionModel()->selectedRows();
        if (selected.isEmpty()) return;
        auto row = static_cast<std::size_t>(selected.first().row());
        if (row < model_->repositories().size())
            state_.selectRepository(model_->repositories()[row]->url());
    });
    // The add row is reached by the keyboard too: the arrow keys move onto it, Enter opens the
    // sheet as its button does.
    connect(tableView_, &QAbstractItemView::activated, this, [this](const QModelIndex& index) {
        if (!index.data(RepositoryListModel::addRowRole).toBool()) return;
        state_.send(event::ShowCreateRepository{});
        // The row shown in the pane is highlighted again (stepping onto the add row cleared it).
        const auto& current = state_.selectedRepository();
        selectRow(current->id().empty() ? std::nullopt : model_->rowOf(current->url()));
    });
    connect(tableView_, &QWidget::customContextMenuRequested, this, [this](const QPoint& point) {
        auto index = tableView_->indexAt(point);
        if (!index.isValid() || index.data(RepositoryListModel::addRowRole).toBool()) return;
        QMenu menu(this);
        int row = index.row();
        menu.addAction(QIcon::fromTheme(QStringLiteral("edit-delete")), QStringLiteral("Delete"),
                       this, [this, row] { deleteRow(row); });
        menu.exec(tableView_->viewport()->mapToGlobal(point));
    });
    auto* deleteAction = new QAction(QStringLiteral("Delete"), tableView_);
    deleteAction->setShortcut(QKeySequence::Delete);
    deleteAction->setShortcutContext(Qt::WidgetShortcut);
    connect(deleteAction, &QAction::triggered, this, [this] {
        auto current = tableView_->currentIndex();
        if (current.isValid() && tableView_->selectionModel()->isSelected(current))
            deleteRow(current.row());
    });
    tableView_->addAction(deleteAction);
    connect(refresher_, &QTimer::timeout, this, [this] { model_->redrawAll(); });
    connect(follower_, &QTimer::timeout, this, [this] { state_.refreshRepositories(); });
    connect(model_, &QAbstractItemModel::modelReset, this, &RepositoryList::placeAddButton);
    connect(model_, &QAbstractItemModel::rowsInserted, this, &RepositoryList::placeAddButton);
    connect(model_, &QAbstractItemModel::rowsRemoved, this, &RepositoryList::placeAddButton);

    placeAddButton();
    showStatus(QStringLiteral("Loading repositories…"), true);
    receiver_ =
        EventReceiver::registerWith(state_, [this](const Event& event) { handleEvent(event); });
}

void RepositoryList::placeAddButton() {
    auto index = model_->index(model_->rowCount() - 1);
    if (tableView_->indexWidget(index)) return;
    auto* button = new QPushButton(addIcon(), QStringLiteral("Add Repository…"));
    button->setFlat(true);
    button->setObjectName(QStringLiteral("addRepository"));
    // A flat button draws no focus frame of its own: the keyboard's place is shown anyway.
    button->setStyleSheet(QStringLiteral(
        "QPushButton { border: 1px solid transparent; border-radius: 3px; padding: 2px 6px; }"
        "QPushButton:focus { border-color: palette(highlight); }"));
    button->setToolTip(QStringLiteral("Create a repository or join a shared one"));
    button->setCursor(Qt::PointingHandCursor);
    connect(button, &QPushButton::clicked, this,
            [this] { state_.send(event::ShowCreateRepository{}); });
    auto* holder = new QWidget;
    auto* layout = new QHBoxLayout(holder);
    layout->setContentsMargins(4, 2, 4, 2);
    layout->addWidget(button);
    layout->addStretch(1);
    tableView_->setIndexWidget(index, holder);
}

void RepositoryList::setFollowInterval(int milliseconds) {
    followInterval_ = milliseconds;
    follower_->stop();
    if (milliseconds > 0 && isVisible()) follower_->start(milliseconds);
}

void RepositoryList::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    model_->redrawAll();
    refresher_->start(kRefreshMilliseconds);
    if (followInterval_ > 0) follower_->start(followInterval_);
    state_.reloadRepositories();
}

void RepositoryList::hideEvent(QHideEvent* event) {
    refresher_->stop();
    follower_->stop();
    QWidget::hideEvent(event);
}

void RepositoryList::deleteRow(int row) {
    if (row < 0 || static_cast<std::size_t>(row) >= model_->repositories().size()) return;
    state_.send(
        event::ShowConfirmDeleteRepository{model_->repositories()[static_cast<std::size_t>(row)]});
}

void RepositoryList::selectRow(std::optional<int> row) {
    auto* selection = tableView_->selectionModel();
    if (!row) {
        if (selection->hasSelection()) selection->clearSelection();
        return;
    }
    auto index = model_->index(*row);
    if (!selection->isSelected(index))
        selection->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
}

void RepositoryList::showStatus(const QString& text, bool busy) {
    statusTextField_->setText(text);
    statusTextField_->setToolTip(text);
    progressIndicator_->setVisible(busy);
}

void RepositoryList::updateStatus() {
    loading_ = false;
    auto count = model_->repositories().size();
    showStatus(QString::number(count) +
                   (count == 1 ? QStringLiteral(" Repository") : QStringLiteral(" Repositories")),
               false);
}

void RepositoryList::handleEvent(const Event& event) {
    if (const auto* added = std::get_if<event::RepositoryAdded>(&event)) {
        int row = model_->add(added->repository);
        selectRow(row);
        tableView_->scrollTo(model_->index(row));
        updateStatus();
    } else if (const auto* modified = std::get_if<event::RepositoryModified>(&event)) {
        auto row = model_->rowOf(modified->url);
        auto stored = state_.repositories().find(modified->url);
        if (row && stored != state_.repositories().end()) model_->replace(*row, stored->second);
    } else if (const auto* deleted = std::get_if<event::RepositoryDeleted>(&event)) {
        if (auto row = model_->rowOf(deleted->url)) {
            model_->remove(*row);
            updateStatus();
        }
    } else if (std::holds_alternative<event::RepositorySelected>(event)) {
        // The selection as it is now, not as the event says it was: when two selections are made
        // before their events arrive, following the first would select it again, and the row
        // and the state would chase each other for ever.
        const auto& current = state_.selectedRepository();
        selectRow(current->id().empty() ? std::nullopt : model_->rowOf(current->url()));
    } else if (std::holds_alternative<event::RepositoriesModified>(event)) {
        std::vector<std::string> shown;
        for (const auto& repository : model_->repositories())
            shown.push_back(repository->url());
        std::vector<std::string> stored;
        for (const auto& [url, repository] : state_.repositories())
            stored.push_back(url);
        std::sort(shown.begin(), shown.end());
        if (shown == stored && !shown.empty() && !loading_) {
            // The same repositories: only their rows are drawn again, from the newly loaded
            // entries so that changed dates show at once.
            for (const auto& [url, repository] : state_.repositories())
                model_->replace(*model_->rowOf(url), repository);
            return;
        }
        std::vector<std::shared_ptr<Repository>> all;
        for (const auto& [url, repository] : state_.repositories())
            all.push_back(repository);
        model_->reset(std::move(all));
        const auto& current = state_.selectedRepository();
        selectRow(current->id().empty() ? std::nullopt : model_->rowOf(current->url()));
        updateStatus();
    } else if (std::holds_alternative<event::ShowSignedOut>(event)) {
        showStatus(QStringLiteral("Signed Out"), false);
    }
}

}  // namespace corvane::ui
