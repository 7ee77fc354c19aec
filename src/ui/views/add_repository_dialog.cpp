#include "ui/views/add_repository_dialog.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPushButton>
#include <QTabWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "storage/repository_name.h"
#include "ui/core/text.h"

namespace corvane::ui {

CreateNameCheck checkCreateName(const QString& text) {
    CreateNameCheck check;
    check.name = text.trimmed();
    if (check.name.isEmpty()) return check;
    if (auto problem = repositoryNameProblem(toStdString(check.name))) {
        check.preview = toQString(*problem);
        return check;
    }
    check.preview = QStringLiteral("git://localhost/") + check.name;
    check.acceptable = true;
    return check;
}

JoinLinkCheck checkJoinLink(const QString& text) {
    QUrl url(text.trimmed(), QUrl::StrictMode);
    JoinLinkCheck check{QStringLiteral("Join a repository"), false};
    if (!url.isValid() || url.scheme().isEmpty()) return check;
    check.acceptable = true;
    if (url.hasFragment()) {
        check.label = QStringLiteral("Join repository ") +
                      QLocale().quoteString(url.fragment(QUrl::FullyDecoded)) + QStringLiteral(".");
    }
    return check;
}

AddRepositoryDialog::AddRepositoryDialog(AppState& state, int selectedTab, QWidget* parent)
    : QDialog(parent),
      state_(state),
      tabView_(new QTabWidget(this)),
      createNameField_(new QLineEdit(this)),
      createGitURLLabel_(new QLabel(QStringLiteral("Clone URL:"), this)),
      createGitURLField_(new QLineEdit(this)),
      joinURLLabel_(new QLabel(this)),
      joinURLField_(new QLineEdit(this)),
      buttons_(new QDialogButtonBox(QDialogButtonBox::Cancel, this)) {
    setWindowTitle(QStringLiteral("Add Repository"));
    setModal(true);

    auto* createPage = new QWidget;
    auto* createForm = new QFormLayout(createPage);
    createNameField_->setPlaceholderText(QStringLiteral("Repository name"));
    createGitURLField_->setReadOnly(true);
    createGitURLField_->setFrame(false);
    createForm->addRow(QStringLiteral("Name:"), createNameField_);
    createForm->addRow(createGitURLLabel_, createGitURLField_);

    auto* joinPage = new QWidget;
    auto* joinLayout = new QVBoxLayout(joinPage);
    joinURLField_->setPlaceholderText(QStringLiteral("Share link"));
    joinLayout->addWidget(joinURLLabel_);
    joinLayout->addWidget(joinURLField_);
    joinLayout->addStretch(1);

    tabView_->addTab(createPage, QStringLiteral("Create"));
    tabView_->addTab(joinPage, QStringLiteral("Join"));
    tabView_->setDocumentMode(true);

    defaultButton_ = buttons_->addButton(QStringLiteral("Create"), QDialogButtonBox::AcceptRole);
    defaultButton_->setDefault(true);
    connect(buttons_, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(defaultButton_, &QPushButton::clicked, this, [this] {
        if (tabView_->currentIndex() == 0) {
            createAction();
        } else {
            joinAction();
        }
    });

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(tabView_);
    layout->addWidget(buttons_);
    setMinimumWidth(fontMetrics().averageCharWidth() * 60);

    // A copied invitation is ready to use.
    QString clipboard = QApplication::clipboard()->text().trimmed();
    if (clipboard.startsWith(QLatin1String(kShareLinkPrefix))) joinURLField_->setText(clipboard);
    tabView_->setCurrentIndex(selectedTab == 1 ? 1 : 0);
    connect(createNameField_, &QLineEdit::textChanged, this, &AddRepositoryDialog::refresh);
    connect(joinURLField_, &QLineEdit::textChanged, this, &AddRepositoryDialog::refresh);
    connect(tabView_, &QTabWidget::currentChanged, this, [this](int tab) {
        refresh();
        (tab == 0 ? createNameField_ : joinURLField_)->setFocus();
    });
    refresh();
    (selectedTab == 1 ? joinURLField_ : createNameField_)->setFocus();
}

void AddRepositoryDialog::refresh() {
    auto create = checkCreateName(createNameField_->text());
    createGitURLLabel_->setVisible(!create.preview.isEmpty());
    createGitURLField_->setVisible(!create.preview.isEmpty());
    createGitURLField_->setText(create.preview);
    auto join = checkJoinLink(joinURLField_->text());
    joinURLLabel_->setText(join.label);
    bool creating = tabView_->currentIndex() == 0;
    defaultButton_->setText(creating ? QStringLiteral("Create") : QStringLiteral("Join"));
    defaultButton_->setEnabled(creating ? create.acceptable : join.acceptable);
}

void AddRepositoryDialog::createAction() {
    auto check = checkCreateName(createNameField_->text());
    if (!check.acceptable) return;
    state_.createRepository(toStdString(check.name));
    accept();
}

void AddRepositoryDialog::joinAction() {
    auto check = checkJoinLink(joinURLField_->text());
    if (!check.acceptable) return;
    state_.joinRepository(toStdString(joinURLField_->text().trimmed()));
    accept();
}

}  // namespace corvane::ui
