#include "app/app_state.h"

#include <gtest/gtest.h>

#include <thread>

#include "app_fixture.h"
#include "cloud/error_codes.h"

namespace corvane {
namespace {

using testing::AppFixture;
using testing::kindOf;
using testing::Recorder;

// Remembers what it was in the middle of, to catch a delivery nested inside another.
class NestingProbe : public EventDelegate {
  public:
    explicit NestingProbe(AppState& state) : state_(state) {}
    void handleEvent(const Event& event) override {
        if (inside_) nested = true;
        inside_ = true;
        const auto* branch = std::get_if<event::BranchSelected>(&event);
        if (branch) {
            names.push_back(branch->name);
            if (branch->name == "resend") state_.send(event::BranchSelected{"after"});
        }
        inside_ = false;
    }
    std::vector<std::string> names;
    bool nested = false;

  private:
    AppState& state_;
    bool inside_ = false;
};

TEST_F(AppFixture, EventsKeepEachSendersOrderAndNeverNest) {
    auto probe = std::make_shared<NestingProbe>(*state);
    state->registerDelegate(probe);
    constexpr int kThreads = 4;
    constexpr int kEach = 200;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i)
                state->send(event::BranchSelected{std::to_string(t) + ":" + std::to_string(i)});
        });
    }
    for (auto& sender : senders)
        sender.join();
    state->send(event::BranchSelected{"resend"});
    state->send(event::BranchSelected{"last"});
    EXPECT_TRUE(probe->names.empty());  // never delivered on the sending thread
    ASSERT_TRUE(pumpUntil([&] { return probe->names.size() == kThreads * kEach + 3; }));

    std::vector<int> next(kThreads, 0);
    for (std::size_t i = 0; i < kThreads * kEach; ++i) {
        const std::string& name = probe->names[i];
        int thread = std::stoi(name.substr(0, name.find(':')));
        EXPECT_EQ(name.substr(name.find(':') + 1), std::to_string(next[thread]++));
    }
    // An event sent during a delivery comes after the events already queued.
    EXPECT_EQ(std::vector<std::string>(probe->names.end() - 3, probe->names.end()),
              (std::vector<std::string>{"resend", "last", "after"}));
    EXPECT_FALSE(probe->nested);
}

TEST_F(AppFixture, ReleasedReceiversHearNothingAndLeaveTheRegistry) {
    auto late = std::make_shared<Recorder>();
    {
        auto gone = std::make_shared<Recorder>();
        state->registerDelegate(gone);
        state->send(event::ShowMainWindow{});
        ASSERT_TRUE(pumpFor<event::ShowMainWindow>());
        EXPECT_EQ(gone->events.size(), 1u);
    }
    EXPECT_EQ(state->registry().size(), 2u);
    state->send(event::ShowJoinRepository{});
    ASSERT_TRUE(pumpFor<event::ShowJoinRepository>());
    EXPECT_EQ(state->registry().size(), 1u);
    state->registerDelegate(late);
    state->send(event::ShowSignedOut{});
    ASSERT_TRUE(pumpFor<event::ShowSignedOut>());
    EXPECT_EQ(late->kinds(), std::vector<std::size_t>{kindOf<event::ShowSignedOut>()});
}

TEST_F(AppFixture, CreateSelectAndDeleteAgainstTheStore) {
    state->createRepository("tools");
    // The placeholder shows at once, before the cloud answers.
    ASSERT_EQ(state->repositories().size(), 1u);
    const std::string url = "git://localhost/tools";
    EXPECT_TRUE(state->repositories().at(url)->participants().empty());
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    EXPECT_EQ(recorder->kinds(), (std::vector<std::size_t>{kindOf<event::RepositoryAdded>(),
                                                           kindOf<event::RepositoryModified>(),
                                                           kindOf<event::RepositoriesModified>()}));
    EXPECT_EQ(recorder->all<event::RepositoryModified>()[0].url, url);
    auto tools = state->repositories().at(url);
    EXPECT_FALSE(tools->participants().empty());  // the loaded one: its owner is listed

    // The same name again: the store refuses to overwrite, and the list reloads regardless.
    recorder->events.clear();
    state->createRepository("tools");
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    auto errors = recorder->all<event::ShowError>();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].message, "Failed to create 'tools'");
    // The atomic save's partial failure speaks for itself.
    EXPECT_TRUE(errors[0].description.starts_with("Failed to save 2 records"))
        << errors[0].description;

    recorder->events.clear();
    state->selectRepository(url);
    state->selectRepository(url);  // already selected: nothing
    state->selectRepository(std::nullopt);
    state->selectRepository(std::nullopt);  // nothing selected, and still announced
    ASSERT_TRUE(pumpFor<event::RepositorySelected>(3));
    auto selections = recorder->all<event::RepositorySelected>();
    ASSERT_EQ(selections.size(), 3u);
    EXPECT_EQ(selections[0].url, url);
    EXPECT_EQ(selections[1].url, std::nullopt);
    EXPECT_TRUE(state->selectedRepository()->id().empty());

    state->selectRepository(url);
    EXPECT_EQ(state->selectedRepository(), state->repositories().at(url));
    ASSERT_TRUE(pumpFor<event::RepositorySelected>(4));
    recorder->events.clear();
    state->deleteRepository("git://localhost/unknown");  // not listed: nothing happens
    state->deleteRepository(url);
    EXPECT_TRUE(state->repositories().empty());
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    EXPECT_EQ(recorder->kinds(), (std::vector<std::size_t>{kindOf<event::RepositoryDeleted>(),
                                                           kindOf<event::RepositorySelected>(),
                                                           kindOf<event::RepositoriesModified>()}));
    EXPECT_EQ(recorder->all<event::RepositorySelected>()[0].url, std::nullopt);
    EXPECT_TRUE(state->selectedRepository()->id().empty());
    EXPECT_TRUE(state->repositories().empty());  // gone from the cloud too
}

TEST_F(AppFixture, ACreatedRepositoryUnderAnotherURLReplacesItsPlaceholder) {
    rewriteSavedFields("tools", "Tools");
    state->createRepository("tools");
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>(2));
    EXPECT_EQ(recorder->kinds(), (std::vector<std::size_t>{kindOf<event::RepositoryAdded>(),
                                                           kindOf<event::RepositoriesModified>(),
                                                           kindOf<event::RepositoriesModified>()}));
    EXPECT_FALSE(state->repositories().contains("git://localhost/tools"));
    EXPECT_TRUE(state->repositories().contains("git://localhost/Tools"));
}

TEST_F(AppFixture, ReloadingOneRepositoryKeepsTheUsersPlace) {
    state->createRepository("tools");
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    const std::string url = "git://localhost/tools";
    auto before = state->repositories().at(url);
    state->selectRepository(url);
    before->setState({"ref: refs/heads/dev", Repository::View::commits});
    recorder->events.clear();
    state->reloadRepository(before);
    ASSERT_TRUE(pumpFor<event::RepositoryModified>());
    auto after = state->repositories().at(url);
    EXPECT_NE(after, before);
    EXPECT_EQ(state->selectedRepository(), after);
    EXPECT_EQ(after->state().selectedView, Repository::View::commits);
    EXPECT_EQ(after->state().head, "ref: refs/heads/dev");

    // Following the store: a repository made elsewhere shows up, while this one, unchanged,
    // stays the object shown and hears nothing.
    bool made = false;
    state->backend().createRepository("other", [&](auto) { made = true; });
    ASSERT_TRUE(pumpUntil([&] { return made; }));
    recorder->events.clear();
    state->refreshRepositories();
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    EXPECT_TRUE(state->repositories().contains("git://localhost/other"));
    EXPECT_EQ(state->repositories().at(url), after);
    EXPECT_TRUE(recorder->all<event::RepositoryModified>().empty());
}

TEST_F(AppFixture, JoinShowsAPlaceholderOnlyForALinkThatNamesTheRepository) {
    state->joinRepository("corvane://share/nothing-here");
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    EXPECT_TRUE(recorder->all<event::RepositoryAdded>().empty());
    ASSERT_EQ(recorder->all<event::ShowError>().size(), 1u);
    EXPECT_EQ(recorder->all<event::ShowError>()[0].message, "Failed to join repository");

    recorder->events.clear();
    state->createRepository("tools");
    ASSERT_TRUE(pumpUntilCreated());
    state->selectRepository("git://localhost/tools");
    ASSERT_TRUE(pumpFor<event::RepositorySelected>());
    recorder->events.clear();
    // The name as people wrote it; a stray "%" stays as it is.
    state->joinRepository("corvane://share/nothing-here#%C3%84rger%20tracker%2");
    state->selectRepository("git://localhost/Ärger tracker%2");  // as the list selects it
    ASSERT_EQ(state->selectedRepository()->name(), "Ärger tracker%2");
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    auto added = recorder->all<event::RepositoryAdded>();
    ASSERT_EQ(added.size(), 1u);
    EXPECT_EQ(added[0].repository->name(), "Ärger tracker%2");
    EXPECT_EQ(recorder->all<event::ShowError>().size(), 1u);
    // Nothing joined: the placeholder is gone and the selection is what it was.
    EXPECT_EQ(state->repositories().size(), 1u);
    EXPECT_EQ(state->selectedRepository()->url(), "git://localhost/tools");

    // A repository that vanished from the store is deselected by the next reload.
    recorder->events.clear();
    state->deleteRepository("git://localhost/tools");
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    EXPECT_TRUE(state->selectedRepository()->id().empty());
}

TEST_F(AppFixture, ContributorsChangeAtOnceAndFailuresAreReported) {
    state->createRepository("tools");
    ASSERT_TRUE(pumpUntilCreated());
    auto tools = state->repositories().at("git://localhost/tools");
    ASSERT_EQ(tools->participants().size(), 1u);
    // The share shows its title and the application's icon, a PNG.
    const auto& share = *tools->share()->share;
    EXPECT_EQ(share.title, "tools");
    ASSERT_TRUE(share.thumbnailImageData);
    EXPECT_EQ(asText(*share.thumbnailImageData).substr(0, 8), "\x89PNG\r\n\x1a\n");
    const std::string ownerEmail = *tools->participants()[0].email;

    recorder->events.clear();
    state->addContributor(tools, ownerEmail);  // listed already: no second row
    EXPECT_EQ(tools->participants().size(), 1u);
    state->addContributor(tools, "friend@example.com");
    ASSERT_EQ(tools->participants().size(), 2u);
    EXPECT_EQ(tools->participants()[1].status, Participant::Status::pending);
    EXPECT_FALSE(tools->participants()[1].shareParticipant);
    // The two are saved in turn, and only the reload after the last is shown: one read between
    // them would drop the second row until then.
    ASSERT_TRUE(pumpFor<event::RepositoryModified>());
    EXPECT_EQ(recorder->all<event::ParticipantsModified>().size(), 2u);
    EXPECT_EQ(state->repositories().at("git://localhost/tools")->participants().size(), 2u);

    // A row without its share entry cannot be removed from the share: the row goes at once,
    // the failure is reported, and the reload brings back what the cloud holds.
    auto current = state->repositories().at("git://localhost/tools");
    Participant invitation;
    invitation.email = "nobody@example.com";
    recorder->events.clear();
    state->deleteContributor(current, invitation);
    ASSERT_TRUE(pumpFor<event::RepositoryModified>());
    auto errors = recorder->all<event::ShowError>();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].message, "Failed to delete contributor 'nobody@example.com'");
    EXPECT_EQ(errors[0].description, "Failed to delete contributor");
    invitation.email.reset();
    recorder->events.clear();
    state->deleteContributor(current, invitation);
    ASSERT_TRUE(pumpFor<event::ShowError>());
    EXPECT_EQ(recorder->all<event::ShowError>()[0].message, "Failed to delete contributor ");
}

TEST_F(AppFixture, EveryFlowReportsItsFailureWithTheCodesSentence) {
    state->createRepository("tools");
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    auto tools = state->repositories().at("git://localhost/tools");

    struct Case {
        std::function<void()> start;
        std::string message;
        std::size_t endsWith;  // the reload that follows the failure, or the error itself
    };
    std::vector<Case> cases{
        {[&] { state->reloadRepositories(); }, "Failed to load repositories",
         kindOf<event::ShowError>()},
        {[&] { state->reloadRepository(tools); }, "Failed to load 'tools'",
         kindOf<event::ShowError>()},
        {[&] { state->createRepository("other"); }, "Failed to create 'other'",
         kindOf<event::RepositoriesModified>()},
        {[&] { state->joinRepository(*tools->shareURL()); }, "Failed to join repository",
         kindOf<event::RepositoriesModified>()},
        {[&] { state->addContributor(tools, "a@example.com"); },
         "Failed to add contributor 'a@example.com'", kindOf<event::RepositoryModified>()},
    };
    for (const auto& flow : cases) {
        recorder->events.clear();
        failNext(cloud::kServiceUnavailable);
        flow.start();
        ASSERT_TRUE(pumpUntil([&] {
            auto kinds = recorder->kinds();
            return std::find(kinds.begin(), kinds.end(), flow.endsWith) != kinds.end();
        })) << flow.message;
        auto errors = recorder->all<event::ShowError>();
        ASSERT_EQ(errors.size(), 1u) << flow.message;
        EXPECT_EQ(errors[0].message, flow.message);
        EXPECT_EQ(errors[0].description, "Service unavailable.");
    }

    recorder->events.clear();
    failNext(cloud::kServiceUnavailable);
    state->deleteRepository(tools->url());
    ASSERT_TRUE(pumpFor<event::ShowError>());
    EXPECT_EQ(recorder->all<event::ShowError>()[0].message, "Failed to delete 'tools'");

    // Signed out: the state changes, no alert.
    ASSERT_TRUE(pumpFor<event::RepositoriesModified>());
    recorder->events.clear();
    failNext(cloud::kNotAuthenticated);
    state->reloadRepositories();
    ASSERT_TRUE(pumpFor<event::ShowSignedOut>());
    EXPECT_TRUE(recorder->all<event::ShowError>().empty());
}

}  // namespace
}  // namespace corvane
