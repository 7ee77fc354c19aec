#include "app/elapsed_time_formatter.h"

#include <gtest/gtest.h>

#include <ctime>

namespace corvane {
namespace {

using Clock = ElapsedTimeFormatter::Clock;
using std::chrono::seconds;

TEST(ElapsedTime, RelativeUnderThirtyDaysThenTheDateAfterThePrefix) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    // 2026-11-23 12:00:00 UTC
    const Clock::time_point now = Clock::from_time_t(1795435200);
    ElapsedTimeFormatter plain("");
    ElapsedTimeFormatter commits("on ");
    EXPECT_EQ(plain.string(std::nullopt, now), "");
    EXPECT_EQ(plain.string(now - seconds(59), now), "just now");
    EXPECT_EQ(plain.string(now + seconds(3600), now), "just now");  // in the future
    EXPECT_EQ(plain.string(now - seconds(60), now), "1 minute ago");
    EXPECT_EQ(plain.string(now - seconds(5 * 60 + 59), now), "5 minutes ago");
    EXPECT_EQ(plain.string(now - seconds(3600), now), "1 hour ago");
    EXPECT_EQ(plain.string(now - seconds(3 * 3600 + 3599), now), "3 hours ago");
    EXPECT_EQ(plain.string(now - seconds(2 * 86400), now), "2 days ago");
    EXPECT_EQ(plain.string(now - seconds(2592000 - 1), now), "29 days ago");
    EXPECT_EQ(plain.string(now - seconds(2592000), now), "Oct 24, 2026");
    EXPECT_EQ(commits.string(now - seconds(2592000), now), "on Oct 24, 2026");
    EXPECT_EQ(commits.string(now - seconds(400 * 86400), now), "on Oct 19, 2025");
    EXPECT_EQ(commits.string(now - seconds(86400), now), "1 day ago");
}

}  // namespace
}  // namespace corvane
