#include "ui/views/preview_controller.h"

#include <QAbstractScrollArea>
#include <QApplication>
#include <QAudioOutput>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLocale>
#include <QMediaPlayer>
#include <QPainter>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>
#include <QStackedWidget>
#include <QStyle>
#include <QTemporaryFile>
#include <QToolButton>
#include <QVBoxLayout>
#include <QVideoWidget>

#include "ui/core/code_view.h"
#include "ui/core/markdown_view.h"
#include "ui/core/text.h"

namespace corvane::ui {

namespace {

// An image scaled down to fit, never up, centred.
class ImageView : public QWidget {
  public:
    ImageView(QImage image, QWidget* parent) : QWidget(parent), image_(std::move(image)) {
        setBackgroundRole(QPalette::Base);
        setAutoFillBackground(true);
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        QRect area = rect().adjusted(16, 16, -16, -16);
        QSize size = image_.size();
        if (size.width() > area.width() || size.height() > area.height())
            size.scale(area.size(), Qt::KeepAspectRatio);
        QRect target(QPoint(0, 0), size);
        target.moveCenter(area.center());
        painter.drawImage(target, image_);
    }

  private:
    QImage image_;
};

QString formattedSize(qint64 bytes) {
    return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

}  // namespace

PreviewController::PreviewController(AppState& state, ObjectLoader& loader,
                                     std::shared_ptr<Repository> repository, std::string blobId,
                                     QString filename, QWidget* parent)
    : QWidget(parent),
      state_(state),
      loader_(loader),
      repository_(std::move(repository)),
      blobId_(std::move(blobId)),
      filename_(std::move(filename)),
      titleField_(new QLabel(filename_, this)),
      sourceButton_(new QToolButton(this)),
      closeButton_(new QToolButton(this)),
      noticeField_(new QLabel(this)),
      stack_(new QStackedWidget(this)),
      progressIndicator_(new QProgressBar(this)),
      errorPage_(new QWidget(this)),
      cautionImageView_(new QLabel(errorPage_)),
      errorField_(new QLabel(errorPage_)),
      retryButton_(new QPushButton(QStringLiteral("Try Again"), errorPage_)) {
    setFocusPolicy(Qt::StrongFocus);
    QFont titleFont = titleField_->font();
    titleFont.setWeight(QFont::DemiBold);
    titleField_->setFont(titleFont);
    titleField_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    sourceButton_->setText(QStringLiteral("Source"));
    sourceButton_->setCheckable(true);
    sourceButton_->setToolTip(QStringLiteral("Show the Markdown source"));
    sourceButton_->hide();
    connect(sourceButton_, &QToolButton::toggled, this, &PreviewController::showSource);
    closeButton_->setIcon(QIcon::fromTheme(QStringLiteral("window-close"),
                                           style()->standardIcon(QStyle::SP_TitleBarCloseButton)));
    closeButton_->setAutoRaise(true);
    closeButton_->setToolTip(QStringLiteral("Close (Esc)"));
    connect(closeButton_, &QToolButton::clicked, this, &PreviewController::closeRequested);
    noticeField_->setWordWrap(true);
    noticeField_->setContentsMargins(12, 4, 12, 4);
    noticeField_->hide();

    progressIndicator_->setRange(0, 0);  // busy
    progressIndicator_->setTextVisible(false);
    progressIndicator_->setMaximumWidth(160);
    auto* loadingPage = new QWidget(this);
    auto* loadingLayout = new QVBoxLayout(loadingPage);
    loadingLayout->addStretch(1);
    loadingLayout->addWidget(progressIndicator_, 0, Qt::AlignHCenter);
    loadingLayout->addStretch(1);

    int iconSize = style()->pixelMetric(QStyle::PM_MessageBoxIconSize);
    cautionImageView_->setPixmap(
        style()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(iconSize, iconSize));
    errorField_->setWordWrap(true);
    errorField_->setAlignment(Qt::AlignHCenter);
    errorField_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    connect(retryButton_, &QPushButton::clicked, this, &PreviewController::reload);
    auto* errorLayout = new QVBoxLayout(errorPage_);
    errorLayout->addStretch(1);
    errorLayout->addWidget(cautionImageView_, 0, Qt::AlignHCenter);
    errorLayout->addWidget(errorField_);
    errorLayout->addWidget(retryButton_, 0, Qt::AlignHCenter);
    errorLayout->addStretch(1);
    stack_->addWidget(loadingPage);
    stack_->addWidget(errorPage_);

    auto* titleBar = new QHBoxLayout;
    titleBar->setContentsMargins(8, 4, 8, 4);
    titleBar->addWidget(closeButton_);
    titleBar->addWidget(titleField_, 1);
    titleBar->addWidget(sourceButton_);
    auto* line = new QFrame(this);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(titleBar);
    layout->addWidget(line);
    layout->addWidget(noticeField_);
    layout->addWidget(stack_, 1);

    receiver_ = EventReceiver::registerWith(state_, [this](const Event& event) {
        // Someone else fetched it after our attempt failed.
        const auto* loaded = std::get_if<event::ObjectsLoaded>(&event);
        if (loaded && status_ == Status::failed && loaded->ids.count(blobId_)) reload();
    });
    reload();
}

PreviewController::~PreviewController() {
    if (player_) {
        player_->stop();
        player_->setSource({});  // lets go of the file before it is removed
    }
    for (const QString& file : tempFiles_)
        QFile::remove(file);
}

QWidget* PreviewController::contentView() const {
    return stack_->currentWidget();
}

void PreviewController::reload() {
    int generation = ++generation_;
    status_ = Status::loading;
    stack_->setCurrentIndex(0);
    loader_.load(repository_, blobId_,
                 [this, generation](const std::optional<Object>& object, const std::string& error) {
                     if (generation != generation_) return;
                     if (object)
                         show(*object);
                     else
                         fail(toQString(error));
                 });
}

void PreviewController::fail(const QString& reason) {
    status_ = Status::failed;
    errorField_->setText(QStringLiteral("The file could not be loaded: ") + reason);
    stack_->setCurrentWidget(errorPage_);
}

void PreviewController::show(const Object& blob) {
    QByteArray bytes = toQByteArray(blob.data());
    content_ = previewContentOf(filename_, bytes);
    status_ = Status::shown;
    QWidget* view = nullptr;
    switch (content_.kind) {
        case PreviewKind::image: {
            QImage image =
                QImage::fromData(content_.shown, QFileInfo(filename_).suffix().toLatin1());
            if (image.isNull()) image = QImage::fromData(content_.shown);
            if (image.isNull()) {
                fail(QStringLiteral("the image cannot be decoded."));
                return;
            }
            view = new ImageView(std::move(image), this);
            break;
        }
        case PreviewKind::media:
            showMedia(bytes);
            return;
        case PreviewKind::markdown:
            markdownView_ = new MarkdownView(this);
            markdownView_->setObjectName(QStringLiteral("markdownPreview"));
            markdownView_->showMarkdown(content_.shown);
            view = markdownView_;
            sourceButton_->show();
            break;
        case PreviewKind::code:
        case PreviewKind::text:
            codeView_ = new CodeView(this);
            codeView_->showText(content_.shown, filename_);
            view = codeView_;
            break;
        case PreviewKind::binary: {
            view = new QWidget(this);
            auto* heading =
                new QLabel(QStringLiteral("Binary file · ") + formattedSize(bytes.size()), view);
            QFont font = heading->font();
            font.setWeight(QFont::DemiBold);
            heading->setFont(font);
            auto* dump = new QPlainTextEdit(view);
            dump->setReadOnly(true);
            dump->setFrameShape(QFrame::NoFrame);
            dump->setLineWrapMode(QPlainTextEdit::NoWrap);
            dump->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
            dump->setPlainText(hexDump(content_.shown));
            auto* layout = new QVBoxLayout(view);
            layout->setContentsMargins(0, 0, 0, 0);
            layout->addWidget(heading);
            heading->setContentsMargins(12, 8, 12, 8);
            layout->addWidget(dump, 1);
            break;
        }
    }
    if (content_.truncated && content_.kind != PreviewKind::binary) {
        noticeField_->setText(
            QStringLiteral("This file is %1; only its first %2 are shown.")
                .arg(formattedSize(bytes.size()), formattedSize(content_.shown.size())));
        noticeField_->show();
    }
    addContent(view);
}

void PreviewController::addContent(QWidget* view) {
    view->installEventFilter(this);
    for (auto* child : view->findChildren<QWidget*>())
        child->installEventFilter(this);
    stack_->addWidget(view);
    stack_->setCurrentWidget(view);
    // The keyboard goes with the preview to what scrolls in it, so Page Down and Ctrl+End move
    // the document at once (Escape and space still close it: the filter sees their keys).
    QWidget* focused = QApplication::focusWidget();
    if (focused == this || isAncestorOf(focused)) {
        QWidget* target = view;
        if (!qobject_cast<QAbstractScrollArea*>(view)) {
            auto scrolled = view->findChildren<QAbstractScrollArea*>();
            if (!scrolled.isEmpty()) target = scrolled.first();
        }
        target->setFocus();
    }
}

void PreviewController::showMedia(const QByteArray& bytes) {
    // Playback reads a file; the copy keeps the extension, which decides the demuxer.
    QString suffix = QFileInfo(filename_).suffix();
    QTemporaryFile copy(QDir::tempPath() + QStringLiteral("/corvane-preview-XXXXXX") +
                        (suffix.isEmpty() ? QString() : QLatin1Char('.') + suffix));
    copy.setAutoRemove(false);
    if (!copy.open() || copy.write(bytes) != bytes.size() || !copy.flush()) {
        QString reason = copy.errorString();
        copy.remove();
        fail(QStringLiteral("a copy for playback cannot be written: ") + reason);
        return;
    }
    tempFiles_ << copy.fileName();
    copy.close();

    auto* view = new QWidget(this);
    auto* video = new QVideoWidget(view);
    auto* playButton = new QToolButton(view);
    playButton->setAutoRaise(true);
    auto* position = new QSlider(Qt::Horizontal, view);
    player_ = new QMediaPlayer(view);
    player_->setAudioOutput(new QAudioOutput(player_));
    player_->setVideoOutput(video);
    connect(playButton, &QToolButton::clicked, player_, [this] {
        if (player_->playbackState() == QMediaPlayer::PlayingState)
            player_->pause();
        else
            player_->play();
    });
    connect(player_, &QMediaPlayer::playbackStateChanged, playButton,
            [this, playButton](QMediaPlayer::PlaybackState playing) {
                playButton->setIcon(style()->standardIcon(playing == QMediaPlayer::PlayingState
                                                              ? QStyle::SP_MediaPause
                                                              : QStyle::SP_MediaPlay));
            });
    playButton->setIcon(style()->standardIcon(QStyle::SP_MediaPlay));
    connect(player_, &QMediaPlayer::durationChanged, position,
            [position](qint64 duration) { position->setRange(0, static_cast<int>(duration)); });
    connect(player_, &QMediaPlayer::positionChanged, position, [position](qint64 at) {
        if (!position->isSliderDown()) position->setValue(static_cast<int>(at));
    });
    connect(position, &QSlider::sliderMoved, player_, [this](int at) { player_->setPosition(at); });
    connect(player_, &QMediaPlayer::errorOccurred, this,
            [this](QMediaPlayer::Error, const QString& reason) {
                noticeField_->setText(QStringLiteral("This file cannot be played: ") + reason);
                noticeField_->show();
            });
    auto* controls = new QHBoxLayout;
    controls->setContentsMargins(8, 4, 8, 4);
    controls->addWidget(playButton);
    controls->addWidget(position, 1);
    auto* layout = new QVBoxLayout(view);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(video, 1);
    layout->addLayout(controls);
    addContent(view);
    player_->setSource(QUrl::fromLocalFile(tempFiles_.back()));
    player_->play();
}

void PreviewController::showSource(bool source) {
    if (!markdownView_) return;
    if (source && !codeView_) {
        codeView_ = new CodeView(this);
        codeView_->showText(content_.shown, filename_);
        addContent(codeView_);
    }
    stack_->setCurrentWidget(source ? static_cast<QWidget*>(codeView_) : markdownView_);
}

namespace {

// Space closes as it opened, as Escape does.
bool closesPreview(const QKeyEvent& key) {
    return key.key() == Qt::Key_Escape ||
           (key.key() == Qt::Key_Space && key.modifiers() == Qt::NoModifier);
}

}  // namespace

void PreviewController::keyPressEvent(QKeyEvent* event) {
    if (closesPreview(*event)) {
        emit closeRequested();
        return;
    }
    QWidget::keyPressEvent(event);
}

bool PreviewController::eventFilter(QObject* watched, QEvent* event) {
    // The views that take the focus (code, Markdown, hex) would keep these keys to themselves.
    if (event->type() == QEvent::KeyPress && closesPreview(*static_cast<QKeyEvent*>(event))) {
        emit closeRequested();
        return true;
    }
    return QWidget::eventFilter(watched, event);
}

}  // namespace corvane::ui
