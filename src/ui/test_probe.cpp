#include "ui/test_probe.h"

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QAbstractScrollArea>
#include <QApplication>
#include <QBrush>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMessageBox>
#include <QPalette>
#include <QScrollBar>
#include <QStyleOptionViewItem>
#include <QTabBar>
#include <QTextEdit>
#include <algorithm>

#include "ui/core/action_row_delegate.h"
#include "ui/core/contrast.h"

namespace corvane::ui {
namespace {

QWidget* visibleWidget(const QString& name) {
    for (QWidget* top : QApplication::topLevelWidgets()) {
        if (!top->isVisible()) continue;
        if (top->objectName() == name) return top;
        for (auto* widget : top->findChildren<QWidget*>(name)) {
            if (widget->isVisible()) return widget;
        }
    }
    return nullptr;
}

QString rectText(const QRect& rect) {
    return QStringLiteral("%1 %2 %3 %4")
        .arg(rect.x())
        .arg(rect.y())
        .arg(rect.width())
        .arg(rect.height());
}

QString textOf(QWidget* widget) {
    if (auto* label = qobject_cast<QLabel*>(widget)) return label->text();
    if (auto* edit = qobject_cast<QLineEdit*>(widget)) return edit->text();
    if (auto* button = qobject_cast<QAbstractButton*>(widget)) return button->text();
    if (auto* text = qobject_cast<QTextEdit*>(widget)) return text->toPlainText();
    return QStringLiteral("none");
}

QModelIndex rowWith(QAbstractItemView* view, const QString& text) {
    auto* model = view->model();
    std::function<QModelIndex(const QModelIndex&)> search = [&](const QModelIndex& parent) {
        for (int row = 0; row < model->rowCount(parent); ++row) {
            for (int column = 0; column < model->columnCount(parent); ++column) {
                auto index = model->index(row, column, parent);
                if (index.data().toString().contains(text)) return index;
            }
        }
        return QModelIndex();
    };
    return search(view->rootIndex());
}

}  // namespace

TestProbe* TestProbe::startIfAsked(QObject* parent) {
    QString path = qEnvironmentVariable("CORVANE_TEST_PROBE");
    if (path.isEmpty()) return nullptr;
    return new TestProbe(path, parent);
}

TestProbe::TestProbe(const QString& path, QObject* parent)
    : QObject(parent), server_(new QLocalServer(this)) {
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    QLocalServer::removeServer(path);
    server_->listen(path);
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (auto* socket = server_->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                while (socket->canReadLine()) {
                    auto request = QString::fromUtf8(socket->readLine()).trimmed();
                    socket->write(
                        answer(request).replace(QLatin1Char('\n'), QLatin1Char(' ')).toUtf8() +
                        '\n');
                }
            });
        }
    });
}

QString TestProbe::answer(const QString& request) const {
    QString verb = request.section(QLatin1Char(' '), 0, 0);
    QString name = request.section(QLatin1Char(' '), 1, 1);
    QString rest = request.section(QLatin1Char(' '), 2);
    if (verb == QLatin1String("focus")) {
        QWidget* focus = QApplication::focusWidget();
        if (!focus) return QStringLiteral("none");
        return focus->objectName().isEmpty() ? QString::fromLatin1(focus->metaObject()->className())
                                             : focus->objectName();
    }
    if (verb == QLatin1String("dialogs")) {
        QStringList shown;
        for (QWidget* top : QApplication::topLevelWidgets()) {
            if (!top->isVisible() || !qobject_cast<QDialog*>(top)) continue;
            QString line = top->windowTitle();
            if (auto* box = qobject_cast<QMessageBox*>(top))
                line += QStringLiteral(": ") + box->text();
            shown << line;
        }
        return shown.isEmpty() ? QStringLiteral("none") : shown.join(QLatin1Char('\t'));
    }
    QWidget* widget = visibleWidget(name);
    if (!widget) return QStringLiteral("none");
    if (verb == QLatin1String("rect"))
        return rectText(QRect(widget->mapToGlobal(QPoint(0, 0)), widget->size()));
    if (verb == QLatin1String("centre")) {
        auto centre = widget->mapToGlobal(widget->rect().center());
        return QStringLiteral("%1 %2").arg(centre.x()).arg(centre.y());
    }
    if (verb == QLatin1String("text")) return textOf(widget);
    if (auto* tabs = qobject_cast<QTabBar*>(widget)) {
        if (verb == QLatin1String("current")) return tabs->tabText(tabs->currentIndex());
        for (int index = 0; verb == QLatin1String("tab") && index < tabs->count(); ++index) {
            if (!tabs->tabText(index).contains(rest)) continue;
            auto center = tabs->mapToGlobal(tabs->tabRect(index).center());
            return QStringLiteral("%1 %2").arg(center.x()).arg(center.y());
        }
        return QStringLiteral("none");
    }
    if (verb == QLatin1String("scroll")) {
        auto* area = qobject_cast<QAbstractScrollArea*>(widget);
        return area ? QString::number(area->verticalScrollBar()->value()) : QStringLiteral("none");
    }
    auto* view = qobject_cast<QAbstractItemView*>(widget);
    if (!view || !view->model()) return QStringLiteral("none");
    if (verb == QLatin1String("rows")) {
        QStringList texts;
        for (int row = 0; row < view->model()->rowCount(view->rootIndex()); ++row)
            texts << view->model()->index(row, 0, view->rootIndex()).data().toString();
        return texts.join(QLatin1Char('\t'));
    }
    if (verb == QLatin1String("selected")) {
        QStringList texts;
        for (const auto& index : view->selectionModel()->selectedIndexes()) {
            if (index.column() == 0) texts << index.data().toString();
        }
        return texts.join(QLatin1Char('\t'));
    }
    if (verb == QLatin1String("contrast")) {
        // The row's least readable text, column by column, on the view's base.
        auto index = rowWith(view, rest);
        if (!index.isValid()) return QStringLiteral("none");
        QColor base = view->palette().color(QPalette::Base);
        double lowest = 21;
        for (int column = 0; column < view->model()->columnCount(index.parent()); ++column) {
            auto cell = index.siblingAtColumn(column);
            if (cell.data().toString().isEmpty()) continue;
            auto brush = cell.data(Qt::ForegroundRole).value<QBrush>();
            QColor text = brush.style() == Qt::NoBrush ? view->palette().color(QPalette::Text)
                                                       : brush.color();
            lowest = std::min(lowest, contrastRatio(text, base));
        }
        return QString::number(lowest, 'f', 1);
    }
    if (verb == QLatin1String("segment")) {
        auto* delegate = qobject_cast<ActionRowDelegate*>(view->itemDelegate());
        auto index = rowWith(view, rest);
        if (!delegate || !index.isValid()) return QStringLiteral("none");
        view->scrollTo(index);
        QStyleOptionViewItem option;
        option.initFrom(view->viewport());
        option.rect = view->visualRect(index);
        auto centre = view->viewport()->mapToGlobal(
            delegate->segmentRect(option, index, ActionRowDelegate::selectSegment).center());
        return QStringLiteral("%1 %2").arg(centre.x()).arg(centre.y());
    }
    if (verb == QLatin1String("row")) {
        auto index = rowWith(view, rest);
        if (!index.isValid()) return QStringLiteral("none");
        view->scrollTo(index);
        // Over the row's text near its start, away from buttons drawn at its end.
        QRect rect = view->visualRect(index);
        auto point = view->viewport()->mapToGlobal(
            QPoint(rect.left() + std::min(48, rect.width() / 4), rect.center().y()));
        return QStringLiteral("%1 %2").arg(point.x()).arg(point.y());
    }
    return QStringLiteral("none");
}

}  // namespace corvane::ui
