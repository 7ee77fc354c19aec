// ViewPlace: where a list stands (how far it is scrolled and which row is selected, by a key that
// survives a reload), taken before its model is reset and put back after, so that a refresh does
// not throw the reader back to the top.
#pragma once

#include <QAbstractItemView>
#include <QScrollBar>
#include <QString>

namespace corvane::ui {

struct ViewPlace {
    int scroll = 0;
    QString selected;  // the key of the current row; empty for none
};

inline ViewPlace placeOf(const QAbstractItemView& view, int keyRole) {
    return {view.verticalScrollBar()->value(), view.currentIndex().data(keyRole).toString()};
}

// The row is found again by its key; the scroll offset is taken as it was, clamped to the list.
inline void restorePlace(QAbstractItemView& view, const ViewPlace& place, int keyRole) {
    view.doItemsLayout();  // the scroll range of the new rows
    auto* model = view.model();
    if (!place.selected.isEmpty()) {
        for (int row = 0; row < model->rowCount(); ++row) {
            QModelIndex index = model->index(row, 0);
            if (index.data(keyRole).toString() == place.selected) {
                view.setCurrentIndex(index);
                break;
            }
        }
    }
    view.verticalScrollBar()->setValue(place.scroll);
}

}  // namespace corvane::ui
