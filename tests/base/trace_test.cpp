#include "base/trace.h"

#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace corvane {
namespace {

using testing::TraceCapture;

TEST(Trace, WritesMarksAndDropsGitTraffic) {
    TraceCapture capture;
    trace(TraceModule::request, "fetching 2 private zones");
    trace(TraceModule::response, "zone created");
    trace(TraceModule::info, "Listening on port 9418");
    trace(TraceModule::error, "EOF");
    trace(TraceModule::gitRequest, "want abc");
    trace(TraceModule::gitReply, "NAK");
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{">> fetching 2 private zones", "<< zone created",
                                        "* Listening on port 9418", "EOF"}));
}

TEST(Trace, LinesFromManyThreadsStayWhole) {
    TraceCapture capture;
    std::vector<std::thread> threads;
    const std::string payload(300, 'x');
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i)
                trace(TraceModule::info, std::to_string(t) + payload);
        });
    }
    for (auto& thread : threads)
        thread.join();
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 800u);
    for (const auto& line : lines) {
        ASSERT_EQ(line.size(), 2 + 1 + payload.size());
        ASSERT_EQ(line.substr(3), payload);
    }
}

}  // namespace
}  // namespace corvane
