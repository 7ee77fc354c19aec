#include "ui/views/file_browser.h"

#include <QAction>
#include <QCollator>
#include <QEventLoop>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QLocale>
#include <QMimeData>
#include <QMouseEvent>
#include <QProgressDialog>
#include <QScrollBar>
#include <QSplitter>
#include <QStackedWidget>
#include <QTimer>
#include <QToolButton>
#include <QToolTip>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>

#include "app/file_export.h"
#include "base/error.h"
#include "objects/tree.h"
#include "ui/core/markdown_view.h"
#include "ui/core/preview_content.h"
#include "ui/core/text.h"
#include "ui/views/preview_controller.h"
#include "ui/views/refs_popup.h"

namespace corvane::ui {

namespace {

constexpr std::uint16_t kTypeBits = 0170000;
constexpr std::uint16_t kDirectoryType = 0040000;

// The README a directory shows under its listing: Markdown first, then any other text.
const FileItem* readmeOf(const std::vector<FileItem>& items) {
    const FileItem* plain = nullptr;
    for (const auto& item : items) {
        if (item.isDirectory || item.kind == FileKind::loading) continue;
        if (item.name.section(QLatin1Char('.'), 0, 0)
                .compare(QLatin1String("readme"), Qt::CaseInsensitive) != 0)
            continue;
        if (isMarkdownFile(item.name)) return &item;
        if (!plain && (item.kind == FileKind::text)) plain = &item;
    }
    return plain;
}

// The entries of a tree, classified, in the order of the user's language.
std::vector<FileItem> listingOf(const Object& tree) {
    std::vector<FileItem> items;
    forEachTreeEntry(
        tree, TextCheck::none, [&](std::uint16_t mode, std::string_view name, ByteView id) {
            bool directory = (mode & kTypeBits) == kDirectoryType;
            QString text = toQString(name);
            items.push_back({hexString(id), text, directory, fileKindOf(text, directory), mode});
        });
    QCollator collator;
    std::vector<std::pair<QCollatorSortKey, std::size_t>> keys;
    keys.reserve(items.size());
    for (std::size_t i = 0; i < items.size(); ++i)
        keys.emplace_back(collator.sortKey(items[i].name), i);
    std::sort(keys.begin(), keys.end(),
              [](const auto& a, const auto& b) { return a.first.compare(b.first) < 0; });
    std::vector<FileItem> sorted;
    sorted.reserve(items.size());
    for (const auto& [key, index] : keys)
        sorted.push_back(std::move(items[index]));
    return sorted;
}

}  // namespace

FileListModel::FileListModel(DragOut dragOut, QObject* parent)
    : QAbstractTableModel(parent), dragOut_(std::move(dragOut)) {}

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
    if (role == nameRole) return item.name;
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

Qt::ItemFlags FileListModel::flags(const QModelIndex& index) const {
    Qt::ItemFlags flags = QAbstractTableModel::flags(index);
    if (index.isValid() && static_cast<std::size_t>(index.row()) < items_.size()) {
        const FileItem& item = items_[static_cast<std::size_t>(index.row())];
        if (item.kind != FileKind::loading) flags |= Qt::ItemIsDragEnabled;
    }
    return flags;
}

QStringList FileListModel::mimeTypes() const {
    return {QStringLiteral("text/uri-list")};
}

Qt::DropActions FileListModel::supportedDragActions() const {
    return Qt::CopyAction;
}

QMimeData* FileListModel::mimeData(const QModelIndexList& indexes) const {
    std::vector<FileItem> files;
    std::vector<int> rows;
    for (const QModelIndex& index : indexes) {
        if (!(flags(index) & Qt::ItemIsDragEnabled)) continue;
        if (std::find(rows.begin(), rows.end(), index.row()) != rows.end()) continue;
        rows.push_back(index.row());
        files.push_back(items_[static_cast<std::size_t>(index.row())]);
    }
    return files.empty() ? nullptr : dragOut_(files);
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
      body_(new QStackedWidget(this)),
      listPage_(new QSplitter(Qt::Vertical, this)),
      tableView_(new QTreeView(listPage_)),
      model_(new FileListModel([this](const auto& files) { return dragOut(files); }, this)),
      readmeView_(new MarkdownView(listPage_)) {
    tableView_->setObjectName(QStringLiteral("files"));
    readmeView_->setObjectName(QStringLiteral("readme"));
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
    // The platform's own Back and Forward keys, and Alt+arrows where they are something else: a
    // key listed twice would make the shortcut ambiguous, and it would do nothing.
    auto keysFor = [](QKeySequence own, QKeySequence::StandardKey standard) {
        QList<QKeySequence> keys{own};
        for (const auto& key : QKeySequence::keyBindings(standard)) {
            if (!keys.contains(key)) keys.append(key);
        }
        return keys;
    };
    auto* backAction = new QAction(this);
    backAction->setShortcuts(keysFor(QKeySequence(Qt::ALT | Qt::Key_Left), QKeySequence::Back));
    backAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(backAction, &QAction::triggered, this, &FileBrowser::back);
    addAction(backAction);
    auto* forwardAction = new QAction(this);
    forwardAction->setShortcuts(
        keysFor(QKeySequence(Qt::ALT | Qt::Key_Right), QKeySequence::Forward));
    forwardAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(forwardAction, &QAction::triggered, this, &FileBrowser::forward);
    addAction(forwardAction);

    tableView_->setModel(model_);
    tableView_->setRootIsDecorated(false);
    tableView_->setUniformRowHeights(true);
    tableView_->setFrameShape(QFrame::NoFrame);
    tableView_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tableView_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    tableView_->setDragEnabled(true);
    tableView_->setDragDropMode(QAbstractItemView::DragOnly);
    tableView_->setDefaultDropAction(Qt::CopyAction);
    tableView_->header()->setStretchLastSection(false);
    tableView_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    tableView_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    tableView_->viewport()->installEventFilter(this);
    tableView_->installEventFilter(this);
    connect(tableView_, &QTreeView::activated, this,
            [this](const QModelIndex& index) { open(index.row()); });
    // A file pressed may be dragged out next: have its blob in the cache by then.
    connect(tableView_, &QTreeView::pressed, this, [this](const QModelIndex& index) {
        const FileItem& item = model_->items()[static_cast<std::size_t>(index.row())];
        if (!item.isDirectory && item.kind != FileKind::loading &&
            !state_.store().hasObject(item.id))
            loader_.load(state_.selectedRepository(), item.id, [](const auto&, const auto&) {});
    });
    readmeView_->hide();
    listPage_->addWidget(tableView_);
    listPage_->addWidget(readmeView_);
    listPage_->setChildrenCollapsible(false);
    listPage_->setStretchFactor(0, 1);
    listPage_->setStretchFactor(1, 2);
    body_->addWidget(listPage_);

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
    layout->addWidget(body_, 1);

    restart();
    receiver_ = EventReceiver::registerWith(state_, [this](const Event& event) { refresh(event); });
}

QStringList FileBrowser::pathComponents() const {
    QStringList components{toQString(state_.selectedRepository()->name())};
    for (const auto& directory : path_)
        components << directory.name;
    return components;
}

void FileBrowser::refresh(const Event& event) {
    if (const auto* loaded = std::get_if<event::ObjectsLoaded>(&event)) {
        // Placeholders whose tree could not be read, and that someone has fetched since. (Not
        // while our own read is under way: its fetch announces the tree before it answers.)
        std::string tree = path_.empty() ? rootTree_ : path_.back().id;
        bool waiting = !model_->items().empty() && model_->items()[0].kind == FileKind::loading;
        if (waiting && !listingUnderWay_ && loaded->ids.count(tree))
            showListing(placeOf(*tableView_, FileListModel::nameRole));
        return;
    }
    if (!changesShownHead(state_, event)) return;
    if (std::holds_alternative<event::RepositoryModified>(event)) {
        // A push that left this commit where it was: the same listing, new sizes and counts.
        const auto& repository = state_.selectedRepository();
        auto commit = repository->headCommit();
        const auto* summary = commit ? repository->content()->commits.find(*commit) : nullptr;
        if (summary && summary->tree == rootTree_) {
            showListing(placeOf(*tableView_, FileListModel::nameRole));
            return;
        }
    }
    restart();
}

void FileBrowser::restart() {
    closePreview();
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

void FileBrowser::leave() {
    if (historyIndex_ < history_.size())
        history_[historyIndex_].view = placeOf(*tableView_, FileListModel::nameRole);
}

void FileBrowser::go(std::vector<Directory> path) {
    leave();
    if (!history_.empty()) history_.resize(historyIndex_ + 1);
    history_.push_back({path, {}});
    historyIndex_ = history_.size() - 1;
    path_ = std::move(path);
    showListing();
}

void FileBrowser::back() {
    if (historyIndex_ == 0 || history_.empty()) return;
    leave();
    const Place& place = history_[--historyIndex_];
    path_ = place.path;
    showListing(place.view);
}

void FileBrowser::forward() {
    if (historyIndex_ + 1 >= history_.size()) return;
    leave();
    const Place& place = history_[++historyIndex_];
    path_ = place.path;
    showListing(place.view);
}

void FileBrowser::open(int row) {
    if (row < 0 || static_cast<std::size_t>(row) >= model_->items().size()) return;
    const FileItem& item = model_->items()[static_cast<std::size_t>(row)];
    if (item.kind == FileKind::loading) return;
    if (!item.isDirectory) {
        openPreview(item);
        return;
    }
    auto path = path_;
    path.push_back({item.id, item.name});
    go(std::move(path));
}

void FileBrowser::openPreview(const FileItem& item) {
    closePreview();
    previewController_ = new PreviewController(state_, loader_, state_.selectedRepository(),
                                               item.id, item.name, body_);
    connect(previewController_, &PreviewController::closeRequested, this,
            &FileBrowser::closePreview);
    body_->addWidget(previewController_);
    body_->setCurrentWidget(previewController_);
    previewController_->setFocus();
}

void FileBrowser::closePreview() {
    if (!previewController_) return;
    bool hadFocus =
        previewController_->isAncestorOf(focusWidget()) || previewController_->hasFocus();
    body_->setCurrentWidget(listPage_);
    // Later: the close button clicked may be the one asking for this.
    previewController_->hide();
    previewController_->deleteLater();
    previewController_ = nullptr;
    if (hadFocus) tableView_->setFocus();
}

void FileBrowser::showDepth(std::size_t depth) {
    if (depth >= path_.size() + 1 || depth == path_.size()) return;
    go(std::vector<Directory>(path_.begin(), path_.begin() + static_cast<std::ptrdiff_t>(depth)));
}

void FileBrowser::showListing(ViewPlace place) {
    int generation = ++generation_;
    ticket_.renew();
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
    readmeView_->hide();
    if (tree.empty() && !repository->id().empty() && content->refs.empty()) {
        // Nothing pushed yet: say how to, where a README would be.
        std::string hint =
            "This repository is empty. Push a branch to it from a repository of "
            "yours:\n\n    git push " +
            repository->url() + " main\n";
        readmeView_->showMarkdown(QByteArray::fromStdString(hint));
        readmeView_->show();
        return;
    }
    if (tree.empty()) return;
    listingUnderWay_ = true;
    // Decoded, classified and sorted on the loader's thread: ten thousand entries take tens of
    // milliseconds the window must not wait for.
    loader_.loadThen(
        repository, tree,
        [this, generation, content, place](const std::optional<Object>& object,
                                           const std::string&) -> std::function<void()> {
            std::vector<FileItem> items;
            bool read = false;
            try {
                if (object) {
                    items = listingOf(*object);
                    read = true;
                }
            } catch (const std::exception&) {
            }
            return [this, generation, content, place, read, items = std::move(items)]() mutable {
                if (generation != generation_) return;
                listingUnderWay_ = false;
                if (!read) return;  // placeholders stay
                model_->reset(std::move(items), content);
                restorePlace(*tableView_, place, FileListModel::nameRole);
                showReadme(model_->items());
            };
        },
        ticket_.flag());
}

void FileBrowser::showReadme(const std::vector<FileItem>& items) {
    const FileItem* readme = readmeOf(items);
    if (!readme) {
        readmeView_->hide();
        return;
    }
    int generation = generation_;
    loader_.load(
        state_.selectedRepository(), readme->id,
        [this, generation, name = readme->name](const std::optional<Object>& object,
                                                const std::string&) {
            if (generation != generation_ || !object) return;
            PreviewContent content = previewContentOf(name, toQByteArray(object->data()));
            if (content.kind == PreviewKind::binary) return;
            if (content.kind == PreviewKind::markdown)
                readmeView_->showMarkdown(content.shown);
            else
                readmeView_->showPlainText(content.shown);
            readmeView_->show();
        },
        ticket_.flag());
}

QMimeData* FileBrowser::dragOut(const std::vector<FileItem>& files) {
    // The pointer moving on while the files are written would start another drag.
    if (exporting_) return nullptr;
    std::vector<FileExport::Entry> entries;
    QStringList names;
    for (const auto& file : files) {
        entries.push_back({file.id, toStdString(file.name), file.mode});
        names << file.name;
    }
    QString shown = names.join(QStringLiteral(", "));
    // The previous drag's files stay until now: the receiver may still be copying them.
    dragFolder_ =
        std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/corvane-drag-XXXXXX"));
    if (!dragFolder_->isValid()) {
        state_.reportError("Failed to drag " + toStdString(shown),
                           std::make_exception_ptr(Error(toStdString(dragFolder_->errorString()))));
        return nullptr;
    }

    // Written on a worker while the window goes on; after a moment a window shows the progress
    // (and takes the input: nothing else happens in this one meanwhile) and can cancel it.
    FileExport exporter(state_.backend().fetcher(), state_.selectedRepository());
    std::atomic<bool> finished = false;
    bool written = false;
    std::exception_ptr failure;
    QEventLoop loop;
    bool listingChanged = false;
    bool waited = false;  // input went on meanwhile
    auto watch = connect(model_, &QAbstractItemModel::modelAboutToBeReset, this,
                         [&] { listingChanged = true; });
    exporting_ = true;
    {
        std::jthread writer([&, folder = toStdString(dragFolder_->path())] {
            try {
                written = exporter.write(entries, folder);
            } catch (...) {
                failure = std::current_exception();
            }
            finished = true;
            QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
        });
        QTimer::singleShot(400, &loop, &QEventLoop::quit);
        if (!finished) loop.exec(QEventLoop::ExcludeUserInputEvents);
        if (!finished) {
            waited = true;
            QProgressDialog progress(QStringLiteral("Getting %1 ready to drop…").arg(shown),
                                     QStringLiteral("Cancel"), 0, 0, this);
            progress.setWindowTitle(QStringLiteral("Dragging Files"));
            progress.setWindowModality(Qt::WindowModal);
            progress.setMinimumDuration(0);
            connect(&progress, &QProgressDialog::canceled, this, [&] { exporter.cancel(); });
            QTimer ticker;
            connect(&ticker, &QTimer::timeout, this, [&] {
                progress.setLabelText(QStringLiteral("Getting %1 ready to drop… (%2 files)")
                                          .arg(shown)
                                          .arg(exporter.filesWritten()));
            });
            ticker.start(250);
            progress.show();
            while (!finished)
                loop.exec();
        }
    }
    exporting_ = false;
    disconnect(watch);

    if (failure) {
        state_.reportError("Failed to drag " + toStdString(shown), failure);
        return nullptr;
    }
    // Cancelled, let go meanwhile, or the rows dragged are gone: no drag now. What was fetched
    // stays in the cache, so the next drag starts at once.
    if (!written || listingChanged) return nullptr;
    if (waited && !(QGuiApplication::mouseButtons() & Qt::LeftButton)) {
        QToolTip::showText(QCursor::pos(), QStringLiteral("%1 is ready: drag it again.").arg(shown),
                           tableView_);
        return nullptr;
    }
    QList<QUrl> urls;
    for (const auto& entry : entries)
        urls << QUrl::fromLocalFile(dragFolder_->filePath(toQString(entry.name)));
    auto* mime = new QMimeData;
    mime->setUrls(urls);
    return mime;
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
    // The keyboard goes through the path where it is drawn: after Back and Forward, before the
    // listing (new buttons would otherwise come last in the window).
    QWidget* previous = forwardButton_;
    for (int depth = 0; depth < components.size(); ++depth) {
        if (depth > 0) {
            auto* separator = new QLabel(QStringLiteral("›"), this);
            separator->setEnabled(false);
            separator->setContentsMargins(2, 0, 2, 0);
            pathBar_->addWidget(separator);
        }
        auto* button = new QToolButton(this);
        button->setObjectName(QStringLiteral("pathComponent"));
        setTabOrder(previous, button);
        previous = button;
        // A long folder name is cut in its middle, whole in the tool tip.
        button->setText(button->fontMetrics().elidedText(
            components[depth], Qt::ElideMiddle, button->fontMetrics().averageCharWidth() * 32));
        button->setToolTip(components[depth]);
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
    setTabOrder(previous, tableView_);
}

bool FileBrowser::eventFilter(QObject* watched, QEvent* event) {
    if (watched == tableView_ && event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (key->key() == Qt::Key_Space && key->modifiers() == Qt::NoModifier) {
            QModelIndex current = tableView_->currentIndex();
            if (current.isValid() &&
                !model_->items()[static_cast<std::size_t>(current.row())].isDirectory)
                open(current.row());
            return true;
        }
    }
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
