#include "ui/qt_main_queue.h"

#include <QMetaObject>

namespace corvane::ui {

void QtMainQueue::async(Task task) {
    QMetaObject::invokeMethod(
        &context_, [task = std::move(task)] { task(); }, Qt::QueuedConnection);
}

}  // namespace corvane::ui
