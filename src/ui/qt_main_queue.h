// QtMainQueue: the main queue of the desktop application, the Qt event loop of the thread that
// creates it (the GUI thread). Tasks posted from any thread run there in submission order.
#pragma once

#include <QObject>

#include "base/queues.h"

namespace corvane::ui {

class QtMainQueue : public MainQueue {
  public:
    QtMainQueue() = default;
    void async(Task task) override;

  private:
    QObject context_;  // lives on the GUI thread: queued calls to it run there
};

}  // namespace corvane::ui
