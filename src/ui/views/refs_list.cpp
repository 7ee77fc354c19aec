#include "ui/views/refs_list.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QListView>
#include <QVBoxLayout>
#include <algorithm>

#include "app/version_order.h"
#include "objects/commit.h"
#include "objects/tag.h"
#include "ui/core/action_row_delegate.h"
#include "ui/core/text.h"
#include "ui/core/view_place.h"

namespace corvane::ui {

namespace {

std::optional<std::chrono::system_clock::time_point> timeOf(const CommitSignature& signature) {
    if (!signature.timestamp) return std::nullopt;
    return std::chrono::system_clock::time_point(
        std::chrono::seconds(static_cast<std::int64_t>(*signature.timestamp)));
}

}  // namespace

RefsList::RefsList(Kind kind, AppState& state, ObjectLoader& loader, QWidget* parent)
    : QWidget(parent),
      kind_(kind),
      state_(state),
      loader_(loader),
      tableView_(new QListView(this)),
      model_(new QStandardItemModel(this)) {
    tableView_->setObjectName(kind == Kind::branches ? QStringLiteral("branches")
                                                     : QStringLiteral("tags"));
    auto* delegate = kind == Kind::branches
                         ? new ActionRowDelegate(QStringLiteral("Copy id to clipboard"),
                                                 QStringLiteral("Show this branch"), tableView_)
                         : new ActionRowDelegate(QStringLiteral("Copy tag id to clipboard"),
                                                 QStringLiteral("Show this tag"), tableView_);
    tableView_->setModel(model_);
    tableView_->setItemDelegate(delegate);
    tableView_->setUniformItemSizes(true);
    tableView_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tableView_->setFrameShape(QFrame::NoFrame);
    connect(delegate, &ActionRowDelegate::segmentClicked, this,
            [this](const QModelIndex& index, int segment) { segmentAction(index.row(), segment); });
    // A row opens as rows do: Enter or a double-click (the view's activation), and the space bar.
    connect(tableView_, &QAbstractItemView::activated, this, [this](const QModelIndex& index) {
        segmentAction(index.row(), ActionRowDelegate::selectSegment);
    });
    auto* open = new QAction(tableView_);
    open->setShortcut(QKeySequence(Qt::Key_Space));
    open->setShortcutContext(Qt::WidgetShortcut);
    connect(open, &QAction::triggered, this, [this] {
        auto current = tableView_->currentIndex();
        if (current.isValid()) segmentAction(current.row(), ActionRowDelegate::selectSegment);
    });
    tableView_->addAction(open);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(tableView_);
    refresh({});
    receiver_ = EventReceiver::registerWith(state_, [this](const Event& event) {
        if (std::holds_alternative<event::RepositorySelected>(event)) {
            refresh({});
        } else if (const auto* modified = std::get_if<event::RepositoryModified>(&event)) {
            if (modified->url == state_.selectedRepository()->url())
                refresh(placeOf(*tableView_, Qt::DisplayRole));
        }
    });
}

void RefsList::refresh(const ViewPlace& place) {
    ++generation_;
    ticket_.renew();
    const auto& repository = state_.selectedRepository();
    std::string prefix = kind_ == Kind::branches ? "refs/heads/" : "refs/tags/";
    refs_.clear();
    auto content = repository->content();
    for (auto it = content->refs.lower_bound(prefix);
         it != content->refs.end() && it->first.starts_with(prefix); ++it) {
        refs_.emplace_back(it->first.substr(prefix.size()), it->second);
    }
    if (kind_ == Kind::tags) {
        // Newest release first, numbered as people number them.
        std::stable_sort(refs_.begin(), refs_.end(), [](const auto& a, const auto& b) {
            return versionLess(b.first, a.first);
        });
    }
    model_->clear();
    for (std::size_t row = 0; row < refs_.size(); ++row) {
        const auto& [name, id] = refs_[row];
        auto* item = new QStandardItem(toQString(name));
        item->setData(toQString(id), ActionRowDelegate::idRole);
        item->setToolTip(toQString(name));
        model_->appendRow(item);
        if (!repository->id().empty()) loadAge(static_cast<int>(row), id, 0);
    }
    restorePlace(*tableView_, place, Qt::DisplayRole);
}

void RefsList::loadAge(int row, const std::string& id, int depth) {
    int generation = generation_;
    loader_.load(
        state_.selectedRepository(), id,
        [this, row, generation, depth](const std::optional<Object>& object, const std::string&) {
            if (generation != generation_ || !object) return;  // no age: left empty
            std::optional<std::chrono::system_clock::time_point> when;
            try {
                if (object->type() == ObjectType::tag) {
                    auto tag = parseTag(*object, TextCheck::none);
                    when = timeOf(tag.tagger);
                    // A tag without a tagger's time is as old as what it tags.
                    if (!when && depth < 8) loadAge(row, tag.target, depth + 1);
                } else if (object->type() == ObjectType::commit) {
                    when = timeOf(parseCommit(*object, TextCheck::none).committer);
                }
            } catch (const std::exception&) {
                return;
            }
            if (when) {
                model_->setData(model_->index(row, 0),
                                QStringList{toQString(dateFormatter_.string(*when))},
                                ActionRowDelegate::infoRole);
            }
        },
        ticket_.flag());
}

void RefsList::segmentAction(int row, int segment) {
    if (row < 0 || static_cast<std::size_t>(row) >= refs_.size()) return;
    const auto& [name, id] = refs_[static_cast<std::size_t>(row)];
    if (segment == ActionRowDelegate::copySegment) {
        QApplication::clipboard()->setText(toQString(id));
        return;
    }
    const auto& repository = state_.selectedRepository();
    if (kind_ == Kind::branches) {
        repository->setHead(name);
        state_.send(event::BranchSelected{name});
    } else {
        auto viewState = repository->state();
        viewState.head = "ref: refs/tags/" + name;
        repository->setState(viewState);
        state_.send(event::TagSelected{name});
    }
}

}  // namespace corvane::ui
