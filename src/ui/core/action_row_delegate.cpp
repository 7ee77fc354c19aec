#include "ui/core/action_row_delegate.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QFontDatabase>
#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QToolTip>

#include "ui/core/icons.h"

namespace corvane::ui {

namespace {

constexpr int kMargin = 8;
constexpr int kSegmentPadding = 8;

QFont smallFont(const QFont& base) {
    QFont font = base;
    font.setPointSizeF(base.pointSizeF() * 0.9);
    return font;
}

QColor quiet(const QStyleOptionViewItem& option, qreal alpha) {
    bool selected = option.state & QStyle::State_Selected;
    QColor color = option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    color.setAlphaF(static_cast<float>(alpha));
    return color;
}

}  // namespace

QString shortId(const QString& id) {
    return id.left(7);
}

ActionRowDelegate::ActionRowDelegate(QString copyToolTip, QString selectToolTip, QObject* parent)
    : QStyledItemDelegate(parent),
      copyToolTip_(std::move(copyToolTip)),
      selectToolTip_(std::move(selectToolTip)) {}

QSize ActionRowDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    QFontMetrics title(option.font);
    QFontMetrics info(smallFont(option.font));
    return {title.averageCharWidth() * 40, title.height() + info.height() + 14};
}

QRect ActionRowDelegate::segmentRect(const QStyleOptionViewItem& option, const QModelIndex& index,
                                     Segment segment) const {
    QString id = index.data(idRole).toString();
    if (id.isEmpty()) return {};
    QFontMetrics metrics(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    int height = QFontMetrics(option.font).height() + 6;
    int idWidth = metrics.horizontalAdvance(shortId(id)) + 2 * kSegmentPadding;
    int copyWidth = height + 4;
    int top = option.rect.center().y() - height / 2;
    int right = option.rect.right() - kMargin;
    QRect select(right - idWidth + 1, top, idWidth, height);
    if (segment == selectSegment) return select;
    return {select.left() - copyWidth, top, copyWidth, height};
}

void ActionRowDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                              const QModelIndex& index) const {
    QStyleOptionViewItem item = option;
    initStyleOption(&item, index);
    item.text.clear();
    item.icon = QIcon();
    const QWidget* widget = option.widget;
    QStyle* style = widget ? widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &item, painter, widget);

    QRect copy = segmentRect(option, index, copySegment);
    QRect select = segmentRect(option, index, selectSegment);
    QRect text = option.rect.adjusted(kMargin, 5, -kMargin, -5);
    if (copy.isValid()) text.setRight(copy.left() - kMargin);
    QFont infoFont = smallFont(option.font);
    QFontMetrics titleMetrics(option.font);
    QFontMetrics infoMetrics(infoFont);
    QRect titleRect(text.left(), text.top(), text.width(), titleMetrics.height());
    QRect infoRect(text.left(), titleRect.bottom() + 2, text.width(), infoMetrics.height());

    painter->save();
    bool placeholder = index.data(placeholderRole).toBool();
    if (placeholder) {
        // Bars where the text will be, in the quietest text colour.
        painter->setPen(quiet(option, 0.18));
        painter->setFont(option.font);
        painter->drawText(titleRect, Qt::AlignLeft | Qt::AlignVCenter, QString(20, QChar(0x2588)));
        painter->setFont(infoFont);
        painter->drawText(infoRect, Qt::AlignLeft | Qt::AlignVCenter, QString(15, QChar(0x2588)));
    } else {
        painter->setPen(quiet(option, 1.0));
        painter->setFont(option.font);
        painter->drawText(titleRect, Qt::AlignLeft | Qt::AlignVCenter,
                          titleMetrics.elidedText(index.data(Qt::DisplayRole).toString(),
                                                  Qt::ElideRight, titleRect.width()));
        // Runs alternate plain and bold: "Ann", " authored and ", "Bo", " committed 2 days ago".
        QStringList runs = index.data(infoRole).toStringList();
        QFont bold = infoFont;
        bold.setWeight(QFont::DemiBold);
        painter->setPen(quiet(option, 0.65));
        int x = infoRect.left();
        for (int i = 0; i < runs.size() && x < infoRect.right(); ++i) {
            bool isBold = i % 2 == 1;
            painter->setFont(isBold ? bold : infoFont);
            QFontMetrics metrics(painter->font());
            int width = infoRect.right() - x;
            QString run = metrics.elidedText(runs[i], Qt::ElideRight, width);
            painter->drawText(QRect(x, infoRect.top(), width, infoRect.height()),
                              Qt::AlignLeft | Qt::AlignVCenter, run);
            x += metrics.horizontalAdvance(run);
        }
    }

    if (copy.isValid()) {
        // A two-part button: copy, then the short id.
        QStyleOptionButton button;
        button.palette = option.palette;
        button.state = QStyle::State_Enabled | QStyle::State_Raised;
        button.rect = copy.united(select);
        style->drawControl(QStyle::CE_PushButtonBevel, &button, painter, widget);
        painter->setPen(quiet(option, 0.25));
        painter->drawLine(select.topLeft() + QPoint(0, 3), select.bottomLeft() - QPoint(0, 3));
        int side = qMin(copy.height() - 8, 16);
        copyIcon().paint(
            painter, QRect(copy.center().x() - side / 2, copy.center().y() - side / 2, side, side));
        painter->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
        painter->setPen(option.palette.color(QPalette::ButtonText));
        painter->drawText(select, Qt::AlignCenter, shortId(index.data(idRole).toString()));
    }
    painter->restore();
}

bool ActionRowDelegate::editorEvent(QEvent* event, QAbstractItemModel* model,
                                    const QStyleOptionViewItem& option, const QModelIndex& index) {
    if (event->type() == QEvent::MouseButtonRelease) {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() == Qt::LeftButton) {
            for (auto segment : {copySegment, selectSegment}) {
                if (segmentRect(option, index, segment).contains(mouse->position().toPoint())) {
                    emit segmentClicked(index, segment);
                    return true;
                }
            }
        }
    }
    return QStyledItemDelegate::editorEvent(event, model, option, index);
}

bool ActionRowDelegate::helpEvent(QHelpEvent* event, QAbstractItemView* view,
                                  const QStyleOptionViewItem& option, const QModelIndex& index) {
    for (auto [segment, tip] :
         {std::pair{copySegment, &copyToolTip_}, std::pair{selectSegment, &selectToolTip_}}) {
        if (segmentRect(option, index, segment).contains(event->pos())) {
            QToolTip::showText(event->globalPos(), *tip, view);
            return true;
        }
    }
    return QStyledItemDelegate::helpEvent(event, view, option, index);
}

}  // namespace corvane::ui
