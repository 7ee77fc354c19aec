// CloneMenu: the ways the clone button offers to clone a repository. Graphical git clients found
// on this machine whose clone links are documented (Visual Studio Code, VSCodium: a desktop file
// that handles their URL scheme), then two of our own that need nothing installed: copying the
// `git clone` command, and cloning into a folder chosen in a dialog.
//
// Threads: the GUI thread. The clone runs as a child process the menu's dialog watches.
#pragma once

#include <QMenu>
#include <QString>
#include <QStringList>
#include <vector>

namespace corvane::ui {

// A graphical git client and how it is asked to clone.
struct CloneApp {
    QString title;   // "Clone with Visual Studio Code"
    QString scheme;  // the URL scheme its desktop file handles
    QString desktopFile;

    // The link that asks the client to clone `url`.
    QString cloneLink(const QString& url) const;
};

// The clients whose scheme handler is installed, in a fixed order, looking for desktop files in
// the `applications` folder of each data folder given (XDG_DATA_HOME, then XDG_DATA_DIRS).
std::vector<CloneApp> installedCloneApps(const QStringList& dataFolders);
QStringList desktopDataFolders();

class CloneMenu : public QMenu {
    Q_OBJECT
  public:
    CloneMenu(QString url, QString name, std::vector<CloneApp> apps, QWidget* parent);

  private:
    void cloneIntoFolder();

    QString url_;
    QString name_;
};

}  // namespace corvane::ui
