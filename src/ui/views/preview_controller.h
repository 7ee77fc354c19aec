// PreviewController: one file of the repository, shown over the Files list. A title bar with the
// name, a Source/Rendered switch for Markdown and a close button; under it the content by kind
// (see PreviewContent): an image fitted to the panel, audio or video playing from a temporary copy
// of the blob (removed when the preview goes), rendered Markdown, highlighted code, text, or
// "Binary file" with the size and a hex dump of the start. While the blob is on its way a busy
// bar shows; if it cannot be had, the reason and a button to try again.
//
// Threads: the GUI thread only; the blob is read by the ObjectLoader.
#pragma once

#include <QStringList>
#include <QWidget>
#include <memory>
#include <optional>
#include <string>

#include "app/app_state.h"
#include "ui/core/event_receiver.h"
#include "ui/core/object_loader.h"
#include "ui/core/preview_content.h"

class QLabel;
class QMediaPlayer;
class QProgressBar;
class QPushButton;
class QStackedWidget;
class QToolButton;

namespace corvane::ui {

class CodeView;
class MarkdownView;

class PreviewController : public QWidget {
    Q_OBJECT
  public:
    enum class Status { loading, shown, failed };

    PreviewController(AppState& state, ObjectLoader& loader, std::shared_ptr<Repository> repository,
                      std::string blobId, QString filename, QWidget* parent);
    ~PreviewController() override;

    Status status() const { return status_; }
    // What is shown; meaningful once the status is `shown`.
    const PreviewContent& content() const { return content_; }
    const std::string& blobId() const { return blobId_; }
    QLabel* titleField() const { return titleField_; }
    QLabel* noticeField() const { return noticeField_; }
    QLabel* errorField() const { return errorField_; }
    QPushButton* retryButton() const { return retryButton_; }
    QToolButton* sourceButton() const { return sourceButton_; }
    QToolButton* closeButton() const { return closeButton_; }
    // The widget showing the content now.
    QWidget* contentView() const;
    CodeView* codeView() const { return codeView_; }
    MarkdownView* markdownView() const { return markdownView_; }
    QMediaPlayer* mediaPlayer() const { return player_; }
    // Copies written for playback; removed with the preview.
    const QStringList& tempFiles() const { return tempFiles_; }

    void reload();

  signals:
    void closeRequested();

  protected:
    void keyPressEvent(QKeyEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void addContent(QWidget* view);  // shown now, and its keys watched
    void show(const Object& blob);
    void fail(const QString& reason);
    void showMedia(const QByteArray& data);
    void showSource(bool source);

    AppState& state_;
    ObjectLoader& loader_;
    std::shared_ptr<Repository> repository_;
    std::string blobId_;
    QString filename_;
    Status status_ = Status::loading;
    PreviewContent content_;
    int generation_ = 0;

    QLabel* titleField_;
    QToolButton* sourceButton_;
    QToolButton* closeButton_;
    QLabel* noticeField_;
    QStackedWidget* stack_;
    QProgressBar* progressIndicator_;
    QWidget* errorPage_;
    QLabel* cautionImageView_;
    QLabel* errorField_;
    QPushButton* retryButton_;
    CodeView* codeView_ = nullptr;
    MarkdownView* markdownView_ = nullptr;
    QMediaPlayer* player_ = nullptr;
    QStringList tempFiles_;
    std::shared_ptr<EventReceiver> receiver_;
};

}  // namespace corvane::ui
