// The application on a real embedded store and object cache in a fresh folder, as `corvane`
// builds it, with the Qt event loop as its main queue.
#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <cstdlib>
#include <functional>
#include <memory>

#include "app/application.h"
#include "objects/object.h"
#include "storage/summaries.h"
#include "support/process.h"
#include "ui/core/event_receiver.h"
#include "ui/qt_main_queue.h"

namespace corvane::testing {

struct UiFixture : ::testing::Test {
    TempDir dir;
    ui::QtMainQueue mainQueue;
    std::unique_ptr<Application> application;

    UiFixture() {
        ::setenv("HOME", dir.path().c_str(), 1);
        ::setenv("XDG_DATA_HOME", (dir.path() + "/data").c_str(), 1);
        ::setenv("XDG_CACHE_HOME", (dir.path() + "/cache").c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", dir.path().c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (dir.path() + "/config").c_str(), 1);
        ::unsetenv("CORVANE_CLOUD");
        application = std::make_unique<Application>(mainQueue);
    }
    ~UiFixture() override {
        application.reset();  // stops the backend while the queue still exists
    }

    AppState& state() { return application->state(); }

    // Runs the event loop until `done` holds; false after 10 s.
    static bool waitFor(const std::function<bool()>& done) {
        QElapsedTimer timer;
        timer.start();
        while (!done()) {
            if (timer.elapsed() > 10000) return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        return true;
    }

    // Creates the repository in the store and waits until the state has it, and has reloaded
    // the list after it.
    std::shared_ptr<Repository> create(const std::string& name) {
        int reloads = 0;
        auto receiver = ui::EventReceiver::registerWith(state(), [&](const Event& event) {
            reloads += std::holds_alternative<event::RepositoriesModified>(event);
        });
        state().createRepository(name);
        std::shared_ptr<Repository> made;
        EXPECT_TRUE(waitFor([&] {
            for (const auto& [url, repository] : state().repositories()) {
                if (repository->name() == name && !repository->participants().empty())
                    made = repository;
            }
            return made != nullptr && reloads > 0;
        })) << name;
        return made;
    }

    // Saves `commits` commits on main (and a branch and an annotated tag on the first when there
    // are several), with their objects in the cache unless the first is `uncached` (then it is
    // nowhere: its pack was never uploaded). Returns the commit ids, oldest first.
    std::vector<std::string> fillHistory(const std::shared_ptr<Repository>& repository, int commits,
                                         bool uncached = false) {
        Repository::ContentUpdate update(*repository);
        auto& content = update.content();
        std::vector<std::string> ids;
        Object tree(ObjectType::tree, {});
        summarise(tree, content);
        for (int i = 0; i < commits; ++i) {
            std::string text = "tree " + tree.id() + "\n";
            if (!ids.empty()) text += "parent " + ids.back() + "\n";
            std::string who = i % 2 ? "Bo <bo@b>" : "Ann <ann@b>";
            text += "author " + who +
                    " 1500000000 +0000\ncommitter Ann <ann@b> 1500000000 +0000\n\n" + "Change " +
                    std::to_string(i) + "\n\nWhy it changed.\n";
            Object commit(ObjectType::commit, toBytes(text));
            summarise(commit, content);
            if (i > 0 || !uncached) state().store().putObject(commit);
            ids.push_back(commit.id());
        }
        if (commits > 1) {
            content.refs["refs/heads/first"] = ids.front();
            Object tag(
                ObjectType::tag,
                toBytes("object " + ids.front() +
                        "\ntype commit\ntag v1\ntagger Ann <ann@b> 1600000000 +0000\n\nv1\n"));
            summarise(tag, content);
            state().store().putObject(tag);
            content.refs["refs/tags/v1"] = tag.id();
        }
        content.refs["refs/heads/main"] = ids.back();
        state().backend().saveRepository(repository, update);
        return ids;
    }
};

}  // namespace corvane::testing
