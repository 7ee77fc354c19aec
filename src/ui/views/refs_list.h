// RefsList: the Branches tab and the Tags tab. One row per branch (or tag), sorted by name: the
// name, how long ago its commit (or, for an annotated tag, the tagging) happened, and the
// control that copies its id or shows it in Files and Commits (moving the head onto it).
//
// Threads: the GUI thread only; the objects that give the ages are read by the ObjectLoader.
#pragma once

#include <QStandardItemModel>
#include <QWidget>
#include <memory>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "app/elapsed_time_formatter.h"
#include "ui/core/event_receiver.h"
#include "ui/core/object_loader.h"
#include "ui/core/view_place.h"

class QListView;

namespace corvane::ui {

class RefsList : public QWidget {
    Q_OBJECT
  public:
    enum class Kind { branches, tags };

    RefsList(Kind kind, AppState& state, ObjectLoader& loader, QWidget* parent);

    QListView* tableView() const { return tableView_; }
    QStandardItemModel* model() const { return model_; }
    // The row's control, as a click on it: 0 copies the id, 1 shows the branch or tag.
    void segmentAction(int row, int segment);

  private:
    void refresh(const ViewPlace& place);  // an empty place: the top
    void loadAge(int row, const std::string& id, int depth);

    Kind kind_;
    AppState& state_;
    ObjectLoader& loader_;
    QListView* tableView_;
    QStandardItemModel* model_;
    std::vector<std::pair<std::string, std::string>> refs_;  // name, id
    int generation_ = 0;  // answers for an older listing are dropped
    LoadTicket ticket_;   // the reads for the rows shown
    ElapsedTimeFormatter dateFormatter_{""};
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
