#include "ui/views/about_dialog.h"

#include <QDialogButtonBox>
#include <QFile>
#include <QLabel>
#include <QTextBrowser>
#include <QVBoxLayout>

#include "base/version.h"
#include "ui/core/icons.h"
#include "ui/core/text.h"

namespace corvane::ui {

AboutDialog::AboutDialog(QWidget* parent)
    : QDialog(parent), versionTextField_(new QLabel(this)), aboutTextView_(new QTextBrowser(this)) {
    setWindowTitle(QStringLiteral("About Corvane"));
    auto* icon = new QLabel(this);
    icon->setPixmap(applicationIcon().pixmap(96, 96));
    icon->setAlignment(Qt::AlignCenter);
    auto* name = new QLabel(QStringLiteral("Corvane"), this);
    QFont nameFont = name->font();
    nameFont.setPointSizeF(nameFont.pointSizeF() * 1.6);
    nameFont.setWeight(QFont::DemiBold);
    name->setFont(nameFont);
    name->setAlignment(Qt::AlignCenter);
    auto version = versionString();
    versionTextField_->setText(version ? QStringLiteral("Version ") + toQString(*version)
                                       : QString());
    versionTextField_->setAlignment(Qt::AlignCenter);
    versionTextField_->setTextInteractionFlags(Qt::TextSelectableByMouse);

    loadResources();
    QFile about(QStringLiteral(":/about.html"));
    if (about.open(QIODevice::ReadOnly))
        aboutTextView_->setHtml(QString::fromUtf8(about.readAll()));
    aboutTextView_->setOpenExternalLinks(true);
    aboutTextView_->setFrameShape(QFrame::NoFrame);
    aboutTextView_->viewport()->setAutoFillBackground(false);
    aboutTextView_->setMinimumHeight(fontMetrics().height() * 9);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(icon);
    layout->addWidget(name);
    layout->addWidget(versionTextField_);
    layout->addWidget(aboutTextView_, 1);
    layout->addWidget(buttons);
    setFixedWidth(fontMetrics().averageCharWidth() * 56);
}

}  // namespace corvane::ui
