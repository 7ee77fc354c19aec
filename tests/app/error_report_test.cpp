#include <gtest/gtest.h>

#include "app/error_description.h"
#include "app/quoted_name.h"
#include "app_fixture.h"
#include "cloud/error_codes.h"
#include "support/trace_capture.h"

namespace corvane {
namespace {

using testing::AppFixture;

std::exception_ptr cloudError(int code, std::optional<std::string> server = std::nullopt) {
    return std::make_exception_ptr(CloudError(code, "code " + std::to_string(code), server));
}

TEST(ErrorDescription, CloudCodesBecomeSentencesAndTheServersWordWins) {
    const std::map<int, std::string> table{
        {1, "The cloud store encountered an error."},
        {3, "Network not available."},
        {4, "Network error."},
        {6, "Service unavailable."},
        {7, "Cloud request is being rate limited, please try again later."},
        {8, "Missing entitlement."},
        {10, "Access failure."},
        {11, "Record does not exist."},
        {14, "The record was rejected because the version on the server was different."},
        {25, "Saving a record would exceed quota."},
        {29, "Contributors limit reached, you can not add more contributors."}};
    for (int code = 0; code <= 31; ++code) {
        auto description = describeError(cloudError(code));
        auto listed = table.find(code);
        EXPECT_EQ(description.text,
                  listed == table.end() ? "code " + std::to_string(code) : listed->second);
        EXPECT_EQ(description.signedOut, code == cloud::kNotAuthenticated);
    }
    EXPECT_EQ(describeError(std::make_exception_ptr(Error("Corrupted tree object x"))).text,
              "Corrupted tree object x");
    auto server = describeError(cloudError(cloud::kNotAuthenticated, "Log in again, please"));
    EXPECT_EQ(server.text, "Log in again, please");
    EXPECT_FALSE(server.signedOut);
    EXPECT_EQ(describeError(cloudError(4, "Try later")).text, "Try later");
}

TEST_F(AppFixture, ReportedErrorsAreLoggedAndShownOrSignOut) {
    testing::TraceCapture log;
    state->reportError("Failed to load repositories", cloudError(4));
    state->reportError("Failed to delete 'tools'", cloudError(cloud::kNotAuthenticated));
    state->reportError("Failed to join repository",
                       cloudError(cloud::kNotAuthenticated, "Sign in on the server first"));
    ASSERT_TRUE(pumpFor<event::ShowError>(2));
    ASSERT_TRUE(pumpFor<event::ShowSignedOut>());
    auto errors = recorder->all<event::ShowError>();
    EXPECT_EQ(errors[0].message, "Failed to load repositories");
    EXPECT_EQ(errors[0].description, "Network error.");
    EXPECT_EQ(errors[1].description, "Sign in on the server first");
    EXPECT_EQ(recorder->all<event::ShowSignedOut>().size(), 1u);
    EXPECT_TRUE(log.contains("Failed to load repositories: Network error."));
    EXPECT_TRUE(log.contains("Failed to delete 'tools'"));
    EXPECT_TRUE(log.contains("Failed to join repository: Sign in on the server first"));
}

TEST(QuotedName, FollowsTheMessagesLanguage) {
    struct Restore {
        ~Restore() {
            ::unsetenv("LC_ALL");
            ::unsetenv("LC_MESSAGES");
            ::setenv("LANG", "C", 1);
        }
    } restore;
    ::unsetenv("LC_ALL");
    ::unsetenv("LC_MESSAGES");
    ::setenv("LANG", "C", 1);
    EXPECT_EQ(quotedName("tools"), "'tools'");
    ::setenv("LANG", "de_DE.UTF-8", 1);
    EXPECT_EQ(quotedName("tools"), "„tools“");
    ::setenv("LC_MESSAGES", "en_GB.UTF-8", 1);
    EXPECT_EQ(quotedName("tools"), "“tools”");
    ::setenv("LC_ALL", "fr_FR@euro", 1);
    EXPECT_EQ(quotedName("tools"), "«tools»");
    ::setenv("LC_ALL", "tlh_XX", 1);  // a language without an entry
    EXPECT_EQ(quotedName("tools"), "'tools'");
}

}  // namespace
}  // namespace corvane
