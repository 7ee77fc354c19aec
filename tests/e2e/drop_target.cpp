// A stand-in for a file manager in the window tests: a window that takes the files and folders
// dropped on it and copies them, as a file manager does, into the folder named on its command
// line. It keeps "<folder>/.where" up to date with its centre on the screen ("x y") and writes
// the names it received, one per line, to "<folder>/.dropped" once they are copied.
#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QUrl>
#include <filesystem>
#include <fstream>

namespace {

class DropTarget : public QLabel {
  public:
    explicit DropTarget(std::filesystem::path folder)
        : QLabel(QStringLiteral("Drop here")), folder_(std::move(folder)) {
        setAcceptDrops(true);
        setAlignment(Qt::AlignCenter);
        setWindowTitle(QStringLiteral("Drop Target"));
    }

  protected:
    void dragEnterEvent(QDragEnterEvent* event) override {
        if (event->mimeData()->hasUrls()) event->acceptProposedAction();
    }
    void dragMoveEvent(QDragMoveEvent* event) override { event->acceptProposedAction(); }
    void dropEvent(QDropEvent* event) override {
        std::string names;
        for (const QUrl& url : event->mimeData()->urls()) {
            std::filesystem::path from = url.toLocalFile().toStdString();
            std::filesystem::copy(from, folder_ / from.filename(),
                                  std::filesystem::copy_options::recursive |
                                      std::filesystem::copy_options::copy_symlinks);
            names += from.filename().string() + "\n";
        }
        event->acceptProposedAction();
        std::ofstream(folder_ / ".dropped") << names;
    }
    void moveEvent(QMoveEvent*) override { tellWhere(); }
    void showEvent(QShowEvent*) override { tellWhere(); }

  private:
    void tellWhere() {
        QPoint centre = mapToGlobal(rect().center());
        std::ofstream(folder_ / ".where") << centre.x() << " " << centre.y() << "\n";
    }
    std::filesystem::path folder_;
};

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc != 2) return 2;
    DropTarget target(argv[1]);
    target.resize(300, 300);
    target.move(950, 450);
    target.show();
    return application.exec();
}
