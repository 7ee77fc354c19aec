// ViewPlace: where a list stands (the row at its top and the row selected, by a key that
// survives a reload), taken before its model is reset and put back after, so that a refresh does
// not throw the reader back to the top, and rows added above do not move what they were reading.
#pragma once

#include <QAbstractItemView>
#include <QScrollBar>
#include <QString>

namespace corvane::ui {

struct ViewPlace {
    QString top;       // the key of the first row in view; empty for the list's start
    QString selected;  // the key of the current row; empty for none
    int scroll = 0;    // the offset to use when the top row is gone
};

inline ViewPlace placeOf(const QAbstractItemView& view, int keyRole) {
    return {view.indexAt(QPoint(1, 1)).data(keyRole).toString(),
            view.currentIndex().data(keyRole).toString(), view.verticalScrollBar()->value()};
}

inline void restorePlace(QAbstractItemView& view, const ViewPlace& place, int keyRole) {
    view.doItemsLayout();  // the scroll range of the new rows
    auto* model = view.model();
    QModelIndex top;
    for (int row = 0; row < model->rowCount(); ++row) {
        QModelIndex index = model->index(row, 0);
        QString key = index.data(keyRole).toString();
        if (!place.selected.isEmpty() && key == place.selected) view.setCurrentIndex(index);
        if (!place.top.isEmpty() && key == place.top) top = index;
    }
    if (top.isValid())
        view.scrollTo(top, QAbstractItemView::PositionAtTop);
    else
        view.verticalScrollBar()->setValue(place.scroll);
}

}  // namespace corvane::ui
