// Renders the main window in fixed states to PNG files, for people to look at: no repositories;
// several (one shared, one still being created) with one selected; its files, a nested
// directory and previews of each kind; the history tabs and a detached head; the add sheet on each
// tab with a refused entry; the contributors with the invite form and a person's menu; the
// delete confirmation; About. Runs on any Qt platform (scripts/
// screenshots.sh uses the offscreen one) against a fresh embedded store in the XDG folders it
// is given.
//
// usage: corvane_screenshots OUTPUT_FOLDER [--dark]
#include <QAbstractItemView>
#include <QApplication>
#include <QBuffer>
#include <QDir>
#include <QEventLoop>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QStyle>
#include <QStyleFactory>
#include <QTabWidget>
#include <QTimer>
#include <QToolButton>
#include <cstdio>
#include <optional>
#include <tuple>
#include <vector>

#include "app/application.h"
#include "cloud/cloud_location.h"
#include "objects/object.h"
#include "storage/summaries.h"
#include "ui/core/locale_text.h"
#include "ui/core/preview_content.h"
#include "ui/core/text.h"
#include "ui/qt_main_queue.h"
#include "ui/views/about_dialog.h"
#include "ui/views/add_repository_dialog.h"
#include "ui/views/commits_info.h"
#include "ui/views/contributors_info.h"
#include "ui/views/file_browser.h"
#include "ui/views/main_window.h"
#include "ui/views/refs_popup.h"
#include "ui/views/repository_info.h"

using namespace corvane;

namespace {

// Runs the event loop until the state's queued work has come back.
void settle(int milliseconds = 300) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

template <typename T, typename Start>
T await(Start start) {
    std::optional<Result<T>> outcome;
    QEventLoop loop;
    start([&](Result<T> result) {
        outcome.emplace(std::move(result));
        loop.quit();
    });
    if (!outcome) loop.exec();
    return std::move(outcome->value());
}

Bytes treeWith(const std::string& name, const Object& blob) {
    Bytes tree = toBytes("100644 " + name);
    tree.push_back(0);
    auto id = digestOfId(blob.id());
    tree.insert(tree.end(), id.begin(), id.end());
    return tree;
}

Object richTree(AppState& state, RepositoryContent& content);

// A small history: `count` commits on main, two more branches and two tags, every object in the
// cache, dated back from now.
void fillHistory(AppState& state, const std::shared_ptr<Repository>& repository, int count) {
    static const char* const kTitles[] = {
        "Add the command-line parser",     "Fix the off-by-one in the pager",
        "Document the configuration file", "Speed up the index rebuild",
        "Handle empty input gracefully",   "Rename the internal helpers",
        "Merge the release notes",         "Update the translations",
    };
    static const char* const kPeople[] = {"Ann Example <ann@example.com>",
                                          "Bo Sample <bo@example.com>"};
    Repository::ContentUpdate update(*repository);
    auto& content = update.content();
    std::string parent;
    std::vector<std::string> commits;
    auto now = std::chrono::duration_cast<std::chrono::seconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count();
    for (int i = 0; i < count; ++i) {
        Object blob(ObjectType::blob, toBytes("version " + std::to_string(i) + "\n"));
        Object tree = i + 1 == count && count > 1
                          ? richTree(state, content)
                          : Object(ObjectType::tree, treeWith("README.md", blob));
        std::string text = "tree " + tree.id() + "\n";
        if (!parent.empty()) text += "parent " + parent + "\n";
        // Newest about an hour ago, then a day or so apart.
        std::string when = std::to_string(now - 3600 - (count - 1 - i) * 90000) + " +0000";
        text += std::string("author ") + kPeople[i % 3 == 0 ? 1 : 0] + " " + when + "\ncommitter " +
                kPeople[0] + " " + when + "\n\n" + kTitles[i % 8] + "\n";
        Object commit(ObjectType::commit, toBytes(text));
        for (const auto* object : {&blob, &tree, &commit}) {
            summarise(*object, content);
            state.store().putObject(*object);
        }
        parent = commit.id();
        commits.push_back(parent);
    }
    content.refs["refs/heads/main"] = parent;
    if (count > 3) {
        content.refs["refs/heads/feature"] = commits[commits.size() - 2];
        content.refs["refs/heads/fix"] = commits[commits.size() - 3];
        Object tag(
            ObjectType::tag,
            toBytes("object " + commits[1] + "\ntype commit\ntag v1.0\ntagger " + kPeople[0] + " " +
                    std::to_string(now - 40 * 86400) + " +0000\n\nFirst\n"));
        summarise(tag, content);
        state.store().putObject(tag);
        content.refs["refs/tags/v1.0"] = tag.id();
        content.refs["refs/tags/v1.1"] = commits[2];
    }
    state.backend().saveRepository(repository, update);
}

// A tree of several kinds of files and two directories, every object summarised and cached.
Object richTree(AppState& state, RepositoryContent& content) {
    auto keep = [&](const Object& object) {
        summarise(object, content);
        state.store().putObject(object);
        return object;
    };
    auto tree = [&](std::vector<std::tuple<const char*, std::string, Object>> entries) {
        Bytes bytes;
        for (const auto& [mode, name, object] : entries) {
            Bytes entry = toBytes(std::string(mode) + " " + name);
            entry.push_back(0);
            auto id = digestOfId(object.id());
            entry.insert(entry.end(), id.begin(), id.end());
            bytes.insert(bytes.end(), entry.begin(), entry.end());
        }
        return keep(Object(ObjectType::tree, bytes));
    };
    auto blob = [&](std::size_t size, char fill) {
        return keep(Object(ObjectType::blob, Bytes(size, static_cast<std::uint8_t>(fill))));
    };
    auto text = [&](const char* contents) {
        return keep(Object(ObjectType::blob, toBytes(contents)));
    };
    // A logo drawn here, saved as the PNG a repository would hold.
    QImage logo(240, 160, QImage::Format_ARGB32);
    logo.fill(QColor(0x2d, 0x6c, 0xdf));
    {
        QPainter painter(&logo);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setBrush(QColor(0xff, 0xc8, 0x3d));
        painter.setPen(Qt::NoPen);
        painter.drawEllipse(QPoint(80, 80), 50, 50);
        painter.setBrush(QColor(0xff, 0xff, 0xff));
        painter.drawRoundedRect(QRect(120, 50, 90, 60), 12, 12);
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    logo.save(&buffer, "PNG");
    Bytes pngBytes(png.begin(), png.end());
    Bytes archive(1843000);
    for (std::size_t i = 0; i < archive.size(); ++i)
        archive[i] = static_cast<std::uint8_t>((i * 2654435761U) >> 13);
    archive[0] = 0x1f;
    archive[1] = 0x8b;
    Object src = tree({{"100644", "main.cpp",
                        text(R"(// The pager's entry point: reads the file named on the command line
// and shows it a screen at a time.
#include <cstdio>
#include <string>

#include "pager.h"

namespace {

constexpr int kDefaultLines = 24;

int usage(const char* program) {
    std::fprintf(stderr, "usage: %s FILE [LINES]\n", program);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(argv[0]);
    int lines = argc > 2 ? std::stoi(argv[2]) : kDefaultLines;
    Pager pager(argv[1], lines);
    while (pager.showNextPage()) {
        if (!pager.waitForKey()) break;  // q quits
    }
    return pager.failed() ? 1 : 0;
}
)")},
                       {"100644", "pager.cpp", blob(5100, 'p')},
                       {"100644", "pager.h", blob(900, 'h')}});
    Object docs = tree({{"100644", "guide.md", text("# Guide\n\nStart with `tools --help`.\n")}});
    return tree({{"100644", "CMakeLists.txt",
                  text("cmake_minimum_required(VERSION 3.25)\nproject(tools "
                       "CXX)\nadd_executable(pager src/main.cpp src/pager.cpp)\n")},
                 {"100644", "LICENSE", blob(11357, 'l')},
                 {"100644", "README.md", text(R"(# tools

Small command-line tools for reading **large files**, one screen at a time.

## Building

```sh
cmake -S . -B build && cmake --build build
```

| Tool  | What it does                 | Status |
|-------|------------------------------|--------|
| pager | shows a file page by page    | done   |
| grep  | finds lines, ~~slowly~~ fast | beta   |

- [x] paging forwards
- [ ] paging backwards

See the [guide](docs/guide.md) or https://example.com/tools.
)")},
                 {"40000", "docs", docs},
                 {"100644", "logo.png", keep(Object(ObjectType::blob, pngBytes))},
                 {"100644", "release.tar.gz", keep(Object(ObjectType::blob, archive))},
                 {"40000", "src", src}});
}

// The window with a sheet over it, as the desktop shows one: centred under the title.
QImage withSheet(QWidget& window, QWidget& sheet) {
    QImage image = window.grab().toImage();
    QPainter painter(&image);
    painter.fillRect(image.rect(), QColor(0, 0, 0, 40));
    QPixmap over = sheet.grab();
    qreal ratio = over.devicePixelRatio();
    int x = (window.width() - static_cast<int>(over.width() / ratio)) / 2;
    painter.drawPixmap(QPoint(x, 60), over);
    return image;
}

}  // namespace

int main(int argc, char** argv) {
    ui::preferFfmpegMediaBackend();
    QApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: corvane_screenshots OUTPUT_FOLDER [--dark]\n");
        return 2;
    }
    QDir out(QString::fromLocal8Bit(argv[1]));
    out.mkpath(QStringLiteral("."));
    bool dark = argc > 2 && QString::fromLatin1(argv[2]) == QLatin1String("--dark");
    QString suffix = dark ? QStringLiteral("-dark") : QStringLiteral("-light");

    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QApplication::setFont(QFont(QStringLiteral("DejaVu Sans"), 10));
    QPalette palette = QApplication::style()->standardPalette();
    if (dark) {
        palette = QPalette(QColor(0x31, 0x36, 0x3b), QColor(0x23, 0x26, 0x29));
        palette.setColor(QPalette::Base, QColor(0x1b, 0x1e, 0x20));
        palette.setColor(QPalette::AlternateBase, QColor(0x23, 0x26, 0x29));
        palette.setColor(QPalette::Text, QColor(0xfc, 0xfc, 0xfc));
        palette.setColor(QPalette::WindowText, QColor(0xfc, 0xfc, 0xfc));
        palette.setColor(QPalette::ButtonText, QColor(0xfc, 0xfc, 0xfc));
        palette.setColor(QPalette::Highlight, QColor(0x3d, 0xae, 0xe9));
        palette.setColor(QPalette::HighlightedText, QColor(0xfc, 0xfc, 0xfc));
        palette.setColor(QPalette::Link, QColor(0x1d, 0x99, 0xf3));
        palette.setColor(QPalette::LinkVisited, QColor(0x9b, 0x59, 0xb6));
        palette.setColor(QPalette::Disabled, QPalette::Text, QColor(0x70, 0x75, 0x7a));
        palette.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x70, 0x75, 0x7a));
    }
    QApplication::setPalette(palette);
    ui::useQtLocale();

    ui::QtMainQueue mainQueue;
    Application application(mainQueue);
    AppState& state = application.state();
    ui::MainWindowController window(application, {});
    window.resize(1000, 640);
    window.show();
    settle();
    auto save = [&](const QImage& image, const QString& name) {
        QString path = out.filePath(name + suffix + QStringLiteral(".png"));
        if (!image.save(path)) std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
    };
    save(window.grab().toImage(), QStringLiteral("main-empty"));

    Backend& backend = state.backend();
    for (const char* name : {"website", "tools", "design-notes", "Ärger-tracker"}) {
        await<std::shared_ptr<Repository>>(
            [&](auto done) { backend.createRepository(name, done); });
    }
    auto tools = backend.fetchRepository("tools", std::string(cloud::kCurrentUserDefaultName));
    fillHistory(state, tools, 24);
    fillHistory(state,
                backend.fetchRepository("website", std::string(cloud::kCurrentUserDefaultName)), 1);
    state.reloadRepositories();
    settle();
    // A repository others share, and one whose creation has not come back yet.
    for (const auto& [url, repository] : state.repositories()) {
        if (repository->name() != "design-notes") continue;
        auto people = repository->participants();
        for (const char* email : {"bo@example.com", "cy@example.com"}) {
            Participant participant;
            participant.email = email;
            participant.status = Participant::Status::accepted;
            people.push_back(participant);
        }
        repository->setParticipants(people);
        state.send(event::RepositoryModified{url});
    }
    state.send(event::RepositoryAdded{std::make_shared<Repository>("new-project")});
    settle();
    state.selectRepository(tools->url());
    settle();
    save(window.grab().toImage(), QStringLiteral("main"));
    if (auto* files = window.findChild<ui::FileBrowser*>()) {
        settle(300);
        save(window.grab().toImage(), QStringLiteral("files"));
        for (int row = 0; row < files->model().rowCount(); ++row) {
            if (files->model().items()[static_cast<std::size_t>(row)].name == "src")
                files->open(row);
        }
        settle(300);
        save(window.grab().toImage(), QStringLiteral("files-nested"));
        auto preview = [&](const char* name, const char* shot) {
            for (int row = 0; row < files->model().rowCount(); ++row) {
                if (files->model().items()[static_cast<std::size_t>(row)].name == name)
                    files->open(row);
            }
            settle(300);
            save(window.grab().toImage(), QString::fromLatin1(shot));
            files->closePreview();
        };
        preview("main.cpp", "preview-code");
        files->showDepth(0);
        settle(100);
        preview("README.md", "preview-markdown");
        preview("logo.png", "preview-image");
        preview("release.tar.gz", "preview-binary");
    }

    // The history tabs, then a detached head with the pop-up open.
    auto* info = window.repositoryInfo();
    const std::pair<Repository::View, const char*> tabs[] = {
        {Repository::View::commits, "commits"},
        {Repository::View::branches, "branches"},
        {Repository::View::tags, "tags"},
    };
    for (const auto& [view, name] : tabs) {
        info->tabView()->setCurrentIndex(static_cast<int>(view));
        // Its first frame, drawn before any commit is read: every row a placeholder.
        if (view == Repository::View::commits)
            save(window.grab().toImage(), QStringLiteral("commits-placeholders"));
        settle(400);
        save(window.grab().toImage(), QString::fromLatin1(name));
    }
    info->tabView()->setCurrentIndex(static_cast<int>(Repository::View::commits));
    if (auto* commits = window.findChild<ui::CommitsInfo*>()) {
        commits->segmentAction(3, 1);
        settle(400);
        commits->refPopUp()->showPopup();
        settle(100);
        QImage image = window.grab().toImage();
        if (auto* popup = commits->refPopUp()->view()->window(); popup && popup->isVisible()) {
            QPainter painter(&image);
            QPoint at = window.mapFromGlobal(popup->mapToGlobal(QPoint(0, 0)));
            painter.drawPixmap(at, popup->grab());
        }
        save(image, QStringLiteral("commits-detached"));
        commits->refPopUp()->hidePopup();
        commits->refPopUp()->choose(commits->refPopUp()->findText(QStringLiteral("main")));
        info->tabView()->setCurrentIndex(0);
        settle();
    }

    // Contributors: one who joined, one pending, one whose address nobody has yet; the invite
    // form open, then a pending person's menu.
    {
        auto location = cloud::cloudLocation();
        auto ada = cloud::Container::open(
            location.databaseFile,
            {location.assetCacheDirectory,
             {std::string("ada@example.com"), cloud::NameComponents{"Ada", "Lovelace"}}});
        cloud::Container::open(location.databaseFile, {location.assetCacheDirectory,
                                                       {std::string("bo@example.com"),
                                                        cloud::NameComponents{"Bo", "Chen"}}});
        for (const char* email : {"ada@example.com", "bo@example.com", "cy@example.com"}) {
            auto current =
                backend.fetchRepository("tools", std::string(cloud::kCurrentUserDefaultName));
            await<Done>([&](auto done) { backend.addContributor(current, email, done); });
        }
        ada->acceptShare(ada->fetchShareMetadata(*tools->shareURL(), false));
        state.reloadRepository(tools);
        settle();
        info->tabView()->setCurrentIndex(static_cast<int>(Repository::View::contributors));
        if (auto* contributors = window.findChild<ui::ContributorsInfo*>()) {
            contributors->showInviteFormButton()->click();
            contributors->emailTextField()->setText(QStringLiteral("dee@example.com"));
            settle(100);
            save(window.grab().toImage(), QStringLiteral("contributors"));
            contributors->showInviteFormButton()->click();
            if (auto* button = contributors->actionButton(2)) {
                QMenu* menu = button->menu();
                menu->popup(button->mapToGlobal(QPoint(0, button->height())));
                settle(100);
                QImage image = window.grab().toImage();
                QPainter painter(&image);
                // Under the button, right-aligned with it, as a desktop places it.
                QPoint at = button->mapTo(&window, QPoint(button->width(), button->height()));
                painter.drawPixmap(at - QPoint(menu->width(), 0), menu->grab());
                painter.end();
                save(image, QStringLiteral("contributors-menu"));
                menu->hide();
            }
        }
        info->tabView()->setCurrentIndex(0);
        settle();
    }

    state.send(event::ShowCreateRepository{});
    settle();
    if (auto* sheet = window.addRepositorySheet()) {
        sheet->createNameField()->setText(QStringLiteral("team/project"));
        settle(50);
        save(withSheet(window, *sheet), QStringLiteral("add-create"));
        sheet->tabView()->setCurrentIndex(1);
        sheet->joinURLField()->setText(QStringLiteral("not a link"));
        settle(50);
        save(withSheet(window, *sheet), QStringLiteral("add-join"));
        sheet->joinURLField()->setText(QStringLiteral("corvane://share/4f9c2e#design-notes"));
        settle(50);
        save(withSheet(window, *sheet), QStringLiteral("add-join-link"));
        sheet->close();
    }
    settle(50);
    state.send(event::ShowConfirmDeleteRepository{tools});
    settle();
    if (auto* alert = window.alert()) {
        save(withSheet(window, *alert), QStringLiteral("delete"));
        alert->close();
    }
    window.showServerProblem(QStringLiteral(
        "The git daemon is not running: port 9418 on 127.0.0.1 is taken by another program. "
        "Repositories can be browsed, but git clients cannot reach them until Corvane is "
        "started again with the port free."));
    settle(50);
    save(window.grab().toImage(), QStringLiteral("main-port-taken"));
    ui::AboutDialog about(&window);
    about.show();
    settle(50);
    save(about.grab().toImage(), QStringLiteral("about"));
    return 0;
}
