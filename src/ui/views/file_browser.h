// FileBrowser: the Files tab. The refs pop-up, Back and Forward, a path bar from the repository
// down to the directory shown, and that directory's entries one level at a time: icon by kind,
// name, and the size of a file or the item count of a directory. While a tree is on its way the
// rows are placeholders, one per child the repository's summaries know (subtrees first); they
// fill in when it arrives. Opening a directory (double-click, Enter) goes into it; Alt+Left and
// Alt+Right, or the mouse's back and forward buttons, move through the directories visited.
//
// Threads: the GUI thread only; trees are read by the ObjectLoader.
#pragma once

#include <QAbstractTableModel>
#include <QWidget>
#include <memory>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "ui/core/event_receiver.h"
#include "ui/core/file_kind.h"
#include "ui/core/object_loader.h"

class QHBoxLayout;
class QToolButton;
class QTreeView;

namespace corvane::ui {

class RefsPopUp;

// One row: an entry of the tree, or a placeholder (no name yet) for one not read.
struct FileItem {
    std::string id;
    QString name;
    bool isDirectory = false;
    FileKind kind = FileKind::loading;
};

class FileListModel : public QAbstractTableModel {
    Q_OBJECT
  public:
    explicit FileListModel(QObject* parent);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    void reset(std::vector<FileItem> items, std::shared_ptr<const RepositoryContent> content);
    const std::vector<FileItem>& items() const { return items_; }

  private:
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

    // Opens the row: a directory is entered (files open in the preview, once there is one).
    void open(int row);
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

    void restart();                        // at the root of the head's tree
    void go(std::vector<Directory> path);  // a new place: history goes on from here
    void showListing();
    void rebuildPathBar();

    AppState& state_;
    ObjectLoader& loader_;
    RefsPopUp* refPopUp_;
    QToolButton* backButton_;
    QToolButton* forwardButton_;
    QHBoxLayout* pathBar_;
    QTreeView* tableView_;
    FileListModel* model_;
    std::string rootTree_;
    std::vector<Directory> path_;
    std::vector<std::vector<Directory>> history_;
    std::size_t historyIndex_ = 0;
    int generation_ = 0;  // answers for an earlier listing are dropped
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
