#include "app/application.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tuple>
#include <vector>

#include "app/command_line.h"
#include "app_fixture.h"
#include "objects/sha1.h"
#include "storage/file_io.h"
#include "support/trace_capture.h"

namespace corvane {
namespace {

using testing::kindOf;
using testing::Recorder;

struct Lifecycle : ::testing::Test {
    testing::TempDir dir;
    LoopMainQueue mainQueue;
    std::optional<Application> application;
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

    void SetUp() override {
        ::setenv("XDG_CACHE_HOME", (dir.path() + "/cache").c_str(), 1);
        ::setenv("CORVANE_CLOUD", (dir.path() + "/cloud.sqlite").c_str(), 1);
        application.emplace(mainQueue);
        application->state().registerDelegate(recorder);
    }
    void pump() {
        for (int i = 0; i < 1000 && recorder->events.empty(); ++i) {
            mainQueue.drain();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        mainQueue.drain();
    }
};

TEST_F(Lifecycle, MenuCommandsAndReopenRaiseTheirEvents) {
    EXPECT_FALSE(application->shouldHandleReopen(true));
    EXPECT_TRUE(application->shouldHandleReopen(false));
    application->createRepositoryMenuAction();
    application->joinRepositoryMenuAction();
    application->deleteRepositoryMenuAction();  // nothing selected: nothing to confirm
    pump();
    EXPECT_EQ(recorder->kinds(), (std::vector<std::size_t>{kindOf<event::ShowMainWindow>(),
                                                           kindOf<event::ShowCreateRepository>(),
                                                           kindOf<event::ShowJoinRepository>()}));
    recorder->events.clear();
    application->reloadRepositoryMenuAction();  // nothing selected: the list alone reloads
    pump();
    EXPECT_EQ(recorder->kinds(), std::vector<std::size_t>{kindOf<event::RepositoriesModified>()});
}

TEST_F(Lifecycle, TheDaemonStartsOnLaunchAndATakenPortIsOnlyLogged) {
    ASSERT_TRUE(application->didFinishLaunching(0));
    std::uint16_t port = application->serverPort();
    EXPECT_NE(port, 0);

    LoopMainQueue otherQueue;
    Application second(otherQueue);
    testing::TraceCapture log;
    EXPECT_FALSE(second.didFinishLaunching(port));
    EXPECT_EQ(second.serverPort(), 0);
    EXPECT_TRUE(log.contains("Failed to start server on port " + std::to_string(port)));
}

TEST_F(Lifecycle, CreateRefusesBadNamesAndANameWhoseRepositoryCannotBeRead) {
    auto run = [](std::vector<std::string> args) {
        std::vector<char*> argv{const_cast<char*>("corvane")};
        for (auto& arg : args)
            argv.push_back(arg.data());
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        int status = runCommandLine(static_cast<int>(argv.size()), argv.data());
        auto out = ::testing::internal::GetCapturedStdout();
        return std::tuple{status, out, ::testing::internal::GetCapturedStderr()};
    };
    auto create = [&] {
        auto [status, out, error] = run({"create", "tools"});
        return std::pair{status, error};
    };
    // A name that would break `corvane list`'s lines, or is no name at all, is never stored.
    std::pair<std::string, std::string> refused[] = {
        {" \t ", "Name can not be empty"},
        {"team/tools", "Name can not contain /"},
        {"..", "Name can not be . or .."},
        {"one\ntwo\tforged line", "Name can not contain control characters"},
        {"tools\xff", "Name is not valid UTF-8"},
        {std::string(5000, 'x'), "Name can not be longer than 255 bytes"},
    };
    for (const auto& [name, problem] : refused) {
        auto [status, out, error] = run({"create", name});
        EXPECT_EQ(status, 2) << name;
        EXPECT_EQ(error.rfind(problem, 0), 0u) << error;
    }
    EXPECT_EQ(std::get<1>(run({"list"})), "");

    ASSERT_EQ(create().first, 0);
    // The record now carries a metadata document nobody can decode.
    auto container = cloud::openContainer();
    auto& database = container->privateCloudDatabase();
    cloud::RecordId id{"REPOSITORY",
                       {hexString(sha1(asBytes(std::string("tools")))),
                        std::string(cloud::kCurrentUserDefaultName)}};
    auto record = *database.fetchRecords(std::vector{id}).front().record;
    auto garbage = dir.path() + "/garbage";
    writeFileAtomically(garbage, asBytes(std::string("not lzfse")));
    record.set("meta", cloud::Asset{garbage});
    cloud::ModifyRecordsOperation damage;
    damage.recordsToSave = {record};
    auto tag = database.modifyRecords(damage).front().recordChangeTag;

    auto [status, message] = create();
    EXPECT_EQ(status, 1);
    // The reason is the damage, not a refused save of a second record over the first.
    EXPECT_NE(message.find("tools"), std::string::npos) << message;
    EXPECT_NE(message.find(": Decompression error"), std::string::npos) << message;
    EXPECT_EQ(database.fetchRecords(std::vector{id}).front().record->recordChangeTag, tag);
}

}  // namespace
}  // namespace corvane
