#include "ui/views/file_browser.h"

#include <QAction>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMouseEvent>
#include <QToolButton>
#include <QTreeView>
#include <QVBoxLayout>
#include <algorithm>

#include "objects/tree.h"
#include "ui/core/text.h"
#include "ui/views/refs_popup.h"

namespace corvane::ui {

namespace {

constexpr std::uint16_t kTypeBits = 0170000;
constexpr std::uint16_t kDirectoryType = 0040000;

}  // namespace

FileListModel::FileListModel(QObject* parent) : QAbstractTableModel(parent) {}

int FileListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(items_.size());
}

int FileListModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : 2;
}

QVariant FileListModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    return section == 0 ? QStringLiteral("Name") : QStringLiteral("Size");
}

QVariant FileListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || static_cast<std::size_t>(index.row()) >= items_.size()) return {};
    const FileItem& item = items_[static_cast<std::size_t>(index.row())];
    bool loading = item.kind == FileKind::loading;
    if (index.column() == 0) {
        switch (role) {
            case Qt::DisplayRole:
                return loading ? QString(10, QChar(0x2588)) : item.name;
            case Qt::ToolTipRole:
                return loading ? QVariant() : QVariant(item.name);
            case Qt::DecorationRole:
                return fileKindIcon(item.kind);
            case Qt::ForegroundRole:
                if (loading) return QColor(128, 128, 128, 60);  // a bar where the name will be
                return {};
            default:
                return {};
        }
    }
    if (role == Qt::TextAlignmentRole) return int(Qt::AlignRight | Qt::AlignVCenter);
    if (role != Qt::DisplayRole || loading || !content_) return {};
    if (item.kind == FileKind::directory) {
        const auto* tree = content_->trees.find(item.id);
        if (!tree) return {};
        return counted(tree->trees.size() + tree->blobs.size(), QStringLiteral("item"),
                       QStringLiteral("items"));
    }
    const auto* size = content_->blobs.find(item.id);
    if (!size) return {};
    return QLocale().formattedDataSize(*size, 1, QLocale::DataSizeSIFormat);
}

void FileListModel::reset(std::vector<FileItem> items,
                          std::shared_ptr<const RepositoryContent> content) {
    beginResetModel();
    items_ = std::move(items);
    content_ = std::move(content);
    endResetModel();
}

FileBrowser::FileBrowser(AppState& state, ObjectLoader& loader, QWidget* parent)
    : QWidget(parent),
      state_(state),
      loader_(loader),
      refPopUp_(new RefsPopUp(state, this)),
      backButton_(new QToolButton(this)),
      forwardButton_(new QToolButton(this)),
      pathBar_(new QHBoxLayout),
      tableView_(new QTreeView(this)),
      model_(new FileListModel(this)) {
    backButton_->setIcon(QIcon::fromTheme(QStringLiteral("go-previous"),
                                          style()->standardIcon(QStyle::SP_ArrowBack)));
    backButton_->setToolTip(QStringLiteral("Back (Alt+Left)"));
    backButton_->setAutoRaise(true);
    forwardButton_->setIcon(QIcon::fromTheme(QStringLiteral("go-next"),
                                             style()->standardIcon(QStyle::SP_ArrowForward)));
    forwardButton_->setToolTip(QStringLiteral("Forward (Alt+Right)"));
    forwardButton_->setAutoRaise(true);
    connect(backButton_, &QToolButton::clicked, this, &FileBrowser::back);
    connect(forwardButton_, &QToolButton::clicked, this, &FileBrowser::forward);
    auto* backAction = new QAction(this);
    backAction->setShortcuts({QKeySequence(Qt::ALT | Qt::Key_Left), QKeySequence::Back});
    backAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(backAction, &QAction::triggered, this, &FileBrowser::back);
    addAction(backAction);
    auto* forwardAction = new QAction(this);
    forwardAction->setShortcuts({QKeySequence(Qt::ALT | Qt::Key_Right), QKeySequence::Forward});
    forwardAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(forwardAction, &QAction::triggered, this, &FileBrowser::forward);
    addAction(forwardAction);

    tableView_->setModel(model_);
    tableView_->setRootIsDecorated(false);
    tableView_->setUniformRowHeights(true);
    tableView_->setFrameShape(QFrame::NoFrame);
    tableView_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tableView_->header()->setStretchLastSection(false);
    tableView_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    tableView_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    tableView_->viewport()->installEventFilter(this);
    connect(tableView_, &QTreeView::activated, this,
            [this](const QModelIndex& index) { open(index.row()); });

    auto* top = new QHBoxLayout;
    top->setContentsMargins(8, 6, 8, 6);
    top->setSpacing(4);
    top->addWidget(refPopUp_);
    top->addSpacing(8);
    top->addWidget(backButton_);
    top->addWidget(forwardButton_);
    pathBar_->setSpacing(0);
    top->addLayout(pathBar_);
    top->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(top);
    layout->addWidget(tableView_, 1);

    restart();
    receiver_ = EventReceiver::registerWith(state_, [this](const Event& event) {
        if (changesShownHead(state_, event)) restart();
    });
}

QStringList FileBrowser::pathComponents() const {
    QStringList components{toQString(state_.selectedRepository()->name())};
    for (const auto& directory : path_)
        components << directory.name;
    return components;
}

void FileBrowser::restart() {
    const auto& repository = state_.selectedRepository();
    rootTree_.clear();
    if (auto commit = repository->headCommit()) {
        if (const auto* summary = repository->content()->commits.find(*commit))
            rootTree_ = summary->tree;
    }
    history_.clear();
    historyIndex_ = 0;
    go({});
}

void FileBrowser::go(std::vector<Directory> path) {
    if (!history_.empty()) history_.resize(historyIndex_ + 1);
    history_.push_back(path);
    historyIndex_ = history_.size() - 1;
    path_ = std::move(path);
    showListing();
}

void FileBrowser::back() {
    if (historyIndex_ == 0 || history_.empty()) return;
    path_ = history_[--historyIndex_];
    showListing();
}

void FileBrowser::forward() {
    if (historyIndex_ + 1 >= history_.size()) return;
    path_ = history_[++historyIndex_];
    showListing();
}

void FileBrowser::open(int row) {
    if (row < 0 || static_cast<std::size_t>(row) >= model_->items().size()) return;
    const FileItem& item = model_->items()[static_cast<std::size_t>(row)];
    if (!item.isDirectory) return;
    auto path = path_;
    path.push_back({item.id, item.name});
    go(std::move(path));
}

void FileBrowser::showDepth(std::size_t depth) {
    if (depth >= path_.size() + 1 || depth == path_.size()) return;
    go(std::vector<Directory>(path_.begin(), path_.begin() + static_cast<std::ptrdiff_t>(depth)));
}

void FileBrowser::showListing() {
    int generation = ++generation_;
    backButton_->setEnabled(historyIndex_ > 0);
    forwardButton_->setEnabled(historyIndex_ + 1 < history_.size());
    rebuildPathBar();
    auto repository = state_.selectedRepository();
    auto content = repository->content();
    std::string tree = path_.empty() ? rootTree_ : path_.back().id;
    std::vector<FileItem> placeholders;
    if (const auto* summary = tree.empty() ? nullptr : content->trees.find(tree)) {
        for (auto link : summary->trees)
            placeholders.push_back({linkedId(link), {}, false, FileKind::loading});
        for (auto link : summary->blobs)
            placeholders.push_back({linkedId(link), {}, false, FileKind::loading});
    }
    model_->reset(std::move(placeholders), content);
    tableView_->scrollToTop();
    if (tree.empty()) return;
    loader_.load(
        repository, tree,
        [this, generation, content](const std::optional<Object>& object, const std::string&) {
            if (generation != generation_ || !object) return;  // placeholders stay
            std::vector<FileItem> items;
            try {
                forEachTreeEntry(*object, TextCheck::none,
                                 [&](std::uint16_t mode, std::string_view name, ByteView id) {
                                     bool directory = (mode & kTypeBits) == kDirectoryType;
                                     QString text = toQString(name);
                                     items.push_back({hexString(id), text, directory,
                                                      fileKindOf(text, directory)});
                                 });
            } catch (const std::exception&) {
                return;
            }
            std::sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
                return QString::localeAwareCompare(a.name, b.name) < 0;
            });
            model_->reset(std::move(items), content);
        });
}

void FileBrowser::rebuildPathBar() {
    // Later: the button clicked may be the one asking for this.
    while (auto* item = pathBar_->takeAt(0)) {
        if (auto* widget = item->widget()) {
            widget->hide();
            widget->deleteLater();
        }
        delete item;
    }
    QStringList components = pathComponents();
    for (int depth = 0; depth < components.size(); ++depth) {
        if (depth > 0) {
            auto* separator = new QLabel(QStringLiteral("›"), this);
            separator->setEnabled(false);
            separator->setContentsMargins(2, 0, 2, 0);
            pathBar_->addWidget(separator);
        }
        auto* button = new QToolButton(this);
        button->setText(components[depth]);
        button->setAutoRaise(true);
        bool last = depth + 1 == components.size();
        if (last) {
            QFont font = button->font();
            font.setWeight(QFont::DemiBold);
            button->setFont(font);
        }
        connect(button, &QToolButton::clicked, this,
                [this, depth] { showDepth(static_cast<std::size_t>(depth)); });
        pathBar_->addWidget(button);
    }
}

bool FileBrowser::eventFilter(QObject* watched, QEvent* event) {
    if (watched == tableView_->viewport() && event->type() == QEvent::MouseButtonPress) {
        auto button = static_cast<QMouseEvent*>(event)->button();
        if (button == Qt::BackButton) {
            back();
            return true;
        }
        if (button == Qt::ForwardButton) {
            forward();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

}  // namespace corvane::ui
