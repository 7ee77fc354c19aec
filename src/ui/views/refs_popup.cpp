#include "ui/views/refs_popup.h"

#include <QStandardItemModel>

#include "ui/core/action_row_delegate.h"
#include "ui/core/text.h"

namespace corvane::ui {

namespace {

constexpr std::string_view kBranchHead = "ref: refs/heads/";
constexpr std::string_view kTagHead = "ref: refs/tags/";

}  // namespace

RefsPopUp::RefsPopUp(AppState& state, QWidget* parent)
    : QComboBox(parent), state_(state), model_(new QStandardItemModel(this)) {
    setObjectName(QStringLiteral("refs"));
    setModel(model_);
    setSizeAdjustPolicy(QComboBox::AdjustToContents);
    setToolTip(QStringLiteral("The branch, tag or commit shown"));
    connect(this, &QComboBox::activated, this, [this](int row) {
        if (!refreshing_) choose(row);
    });
    refresh();
    receiver_ = EventReceiver::registerWith(state_, [this](const Event& event) {
        if (changesShownHead(state_, event)) refresh();
    });
}

void RefsPopUp::addHeader(const QString& title) {
    auto* item = new QStandardItem(title);
    item->setFlags(Qt::NoItemFlags);  // cannot be chosen
    QFont font = this->font();
    font.setWeight(QFont::DemiBold);
    font.setPointSizeF(font.pointSizeF() * 0.9);
    item->setFont(font);
    item->setData(header, kKindRole);
    model_->appendRow(item);
}

void RefsPopUp::addItem(Kind kind, const QString& name, const QString& title) {
    auto* item = new QStandardItem(title);
    item->setData(kind, kKindRole);
    item->setData(name, kNameRole);
    model_->appendRow(item);
}

void RefsPopUp::refresh() {
    refreshing_ = true;
    model_->clear();
    const auto& repository = state_.selectedRepository();
    std::string head = repository->state().head;
    addHeader(QStringLiteral("Branches"));
    for (const auto& name : repository->branchNames())
        addItem(branch, toQString(name), toQString(name));
    auto tags = repository->tagNames();
    if (!tags.empty()) {
        insertSeparator(count());
        addHeader(QStringLiteral("Tags"));
        for (const auto& name : tags)
            addItem(tag, toQString(name), toQString(name));
    }
    bool detached = !head.starts_with("ref: ");
    if (detached) {
        insertSeparator(count());
        addHeader(QStringLiteral("Commits"));
        addItem(commit, toQString(head), shortId(toQString(head)));
    }
    // The head's item.
    Kind kind = detached ? commit : head.starts_with(kTagHead) ? tag : branch;
    QString name = toQString(detached                     ? head
                             : head.starts_with(kTagHead) ? head.substr(kTagHead.size())
                                                          : head.substr(kBranchHead.size()));
    for (int row = 0; row < count(); ++row) {
        if (itemData(row, kKindRole).toInt() == kind &&
            itemData(row, kNameRole).toString() == name) {
            setCurrentIndex(row);
            break;
        }
    }
    refreshing_ = false;
}

void RefsPopUp::choose(int row) {
    auto kind = static_cast<Kind>(itemData(row, kKindRole).toInt());
    std::string name = toStdString(itemData(row, kNameRole).toString());
    const auto& repository = state_.selectedRepository();
    if (repository->id().empty()) return;
    switch (kind) {
        case branch:
            repository->setHead(name);
            state_.send(event::BranchSelected{name});
            break;
        case tag: {
            auto viewState = repository->state();
            viewState.head = std::string(kTagHead) + name;  // a new head empties the cached history
            repository->setState(viewState);
            state_.send(event::TagSelected{name});
            break;
        }
        case commit:
            state_.send(event::CommitSelected{name});
            break;
        case header:
            break;
    }
}

}  // namespace corvane::ui
