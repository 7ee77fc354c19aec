// ActionRowDelegate: how the history and reference lists draw a row. A title (or, while its
// object is on its way, a bar of full blocks), an information line whose runs alternate plain and
// bold (names), and on the right a two-part control: copy the id, and the short id that selects
// what the row shows. A click on either part is reported with the row.
//
// The model gives, per row: Qt::DisplayRole the title, infoRole a QStringList of runs (plain,
// bold, plain, …), idRole the full id (empty: no control), placeholderRole true while loading.
#pragma once

#include <QStyledItemDelegate>
#include <functional>

namespace corvane::ui {

class ActionRowDelegate : public QStyledItemDelegate {
    Q_OBJECT
  public:
    enum Role { infoRole = Qt::UserRole + 20, idRole, placeholderRole };
    enum Segment { copySegment = 0, selectSegment = 1 };

    // The tool tips of the two parts: what copying copies, and what the short id shows.
    ActionRowDelegate(QString copyToolTip, QString selectToolTip, QObject* parent);

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                     const QModelIndex& index) override;
    bool helpEvent(QHelpEvent* event, QAbstractItemView* view, const QStyleOptionViewItem& option,
                   const QModelIndex& index) override;

    // Where the two parts of a row's control lie (empty without an id).
    QRect segmentRect(const QStyleOptionViewItem& option, const QModelIndex& index,
                      Segment segment) const;

  signals:
    void segmentClicked(const QModelIndex& index, int segment);

  private:
    QString copyToolTip_;
    QString selectToolTip_;
};

// The first 7 characters of an id, or the whole id when shorter.
QString shortId(const QString& id);

}  // namespace corvane::ui
