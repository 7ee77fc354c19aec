// FileBrowser: the Files tab. The refs pop-up, Back and Forward, a path bar from the repository
// down to the directory shown, and that directory's entries one level at a time: icon by kind,
// name, and the size of a file or the item count of a directory. While a tree is on its way the
// rows are placeholders, one per child the repository's summaries know (subtrees first); they
// fill in when it arrives. A README in the directory is shown rendered under the listing.
// Opening a row (double-click, Enter) goes into a directory or previews a file, as the space bar
// does; Alt+Left and Alt+Right, or the mouse's back and forward buttons, move through the
// directories visited, each shown scrolled and selected as it was left. Files and folders dragged
// out are written, at the start of the drag, into a private folder that lives until the next
// drag; what the cache lacks is fetched first, behind a progress window once it takes a while.
//
// Threads: the GUI thread only; trees and blobs are read by the ObjectLoader.
#pragma once

#include <QAbstractTableModel>
#include <QTemporaryDir>
#include <QWidget>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "ui/core/event_receiver.h"
#include "ui/core/file_kind.h"
#include "ui/core/object_loader.h"
#include "ui/core/view_place.h"

class QHBoxLayout;
class QSplitter;
class QStackedWidget;
class QToolButton;
class QTreeView;

namespace corvane::ui {

class MarkdownView;
class PreviewController;
class RefsPopUp;

// One row: an entry of the tree, or a placeholder (no name yet) for one not read.
struct FileItem {
    std::string id;
    QString name;
    bool isDirectory = false;
    FileKind kind = FileKind::loading;
    std::uint16_t mode = 0;  // as the tree gives it: 0100755 an executable, 0120000 a link
};

class FileListModel : public QAbstractTableModel {
    Q_OBJECT
  public:
    // The entry's name, the key that finds a row again after a reload.
    static constexpr int nameRole = Qt::UserRole + 1;
    // Writes the dragged files somewhere the receiver can copy them from.
    using DragOut = std::function<QMimeData*(const std::vector<FileItem>& files)>;

    FileListModel(DragOut dragOut, QObject* parent);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QStringList mimeTypes() const override;
    QMimeData* mimeData(const QModelIndexList& indexes) const override;
    Qt::DropActions supportedDragActions() const override;

    void reset(std::vector<FileItem> items, std::shared_ptr<const RepositoryContent> content);
    const std::vector<FileItem>& items() const { return items_; }

  private:
    DragOut dragOut_;
    std::vector<FileItem> items_;
    std::shared_ptr<const RepositoryContent> content_;  // for sizes and counts
};

class FileBrowser : public QWidget {
    Q_OBJECT
  public:
    FileBrowser(AppState& state, ObjectLoader& loader, QWidget* parent);

    RefsPopUp* refPopUp() const { return refPopUp_; }
    QTreeView* tableView() const { return tableView_; }
    const FileListModel& model() const { return *model_; }
    // The path bar's components, the repository's name first.
    QStringList pathComponents() const;

    // Opens the row: a directory is entered, a file previewed.
    void open(int row);
    // The preview shown over the listing, or null.
    PreviewController* previewController() const { return previewController_; }
    void closePreview();
    // The README rendered under the listing (hidden when the directory has none).
    MarkdownView* readmeView() const { return readmeView_; }
    // Shows the directory at `depth` of the path (0: the root).
    void showDepth(std::size_t depth);
    void back();
    void forward();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    struct Directory {
        std::string id;
        QString name;
    };
    // A directory visited, and how it was left.
    struct Place {
        std::vector<Directory> path;
        ViewPlace view;
    };

    void refresh(const Event& event);
    void restart();                        // at the root of the head's tree
    void go(std::vector<Directory> path);  // a new place: history goes on from here
    void leave();                          // remembers how the directory shown is left
    void showListing(ViewPlace place = {});
    void showItems(std::vector<FileItem> items, const ViewPlace& place);
    void showReadme(const std::vector<FileItem>& items);
    void rebuildPathBar();
    void openPreview(const FileItem& item);
    QMimeData* dragOut(const std::vector<FileItem>& files);

    AppState& state_;
    ObjectLoader& loader_;
    RefsPopUp* refPopUp_;
    QToolButton* backButton_;
    QToolButton* forwardButton_;
    QHBoxLayout* pathBar_;
    QStackedWidget* body_;
    QSplitter* listPage_;
    QTreeView* tableView_;
    FileListModel* model_;
    MarkdownView* readmeView_;
    PreviewController* previewController_ = nullptr;  // a child of body_, deleted on close
    std::unique_ptr<QTemporaryDir> dragFolder_;
    bool exporting_ = false;  // a drag's files are being written
    std::string rootTree_;
    std::vector<Directory> path_;
    std::vector<Place> history_;
    std::size_t historyIndex_ = 0;
    int generation_ = 0;            // answers for an earlier listing are dropped
    bool listingUnderWay_ = false;  // the directory shown is being read
    LoadTicket ticket_;             // the reads for the directory shown
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
