#include "base/queues.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

namespace corvane {
namespace {

TEST(LoopMainQueue, RunsTasksFromManyThreadsInEachSendersOrderOnOneThread) {
    LoopMainQueue queue;
    constexpr int kSenders = 4;
    constexpr int kTasks = 1000;
    std::map<int, std::vector<int>> received;  // touched on the main loop only
    std::atomic<int> running{0};
    bool nested = false;
    std::thread::id loopThread;
    std::atomic<int> done{0};

    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int i = 0; i < kTasks; ++i) {
                queue.async([&, s, i] {
                    if (running.fetch_add(1) != 0) nested = true;
                    if (loopThread == std::thread::id{}) loopThread = std::this_thread::get_id();
                    if (loopThread != std::this_thread::get_id()) nested = true;
                    received[s].push_back(i);
                    running.fetch_sub(1);
                    if (++done == kSenders * kTasks) queue.stop();
                });
            }
        });
    }
    queue.run();
    for (auto& sender : senders)
        sender.join();
    EXPECT_FALSE(nested);
    EXPECT_EQ(loopThread, std::this_thread::get_id());
    for (int s = 0; s < kSenders; ++s) {
        ASSERT_EQ(received[s].size(), static_cast<std::size_t>(kTasks));
        for (int i = 0; i < kTasks; ++i)
            ASSERT_EQ(received[s][static_cast<std::size_t>(i)], i);
    }
}

TEST(WorkQueue, DestructionRunsEveryQueuedTaskAndJoins) {
    std::atomic<int> ran{0};
    {
        WorkQueue queue("test", 3);
        for (int i = 0; i < 500; ++i)
            queue.async([&] { ++ran; });
    }
    EXPECT_EQ(ran.load(), 500);
}

TEST(LoopMainQueue, DrainRunsTasksQueuedByTasks) {
    LoopMainQueue queue;
    std::vector<int> order;
    queue.async([&] {
        order.push_back(1);
        queue.async([&] { order.push_back(3); });
    });
    queue.async([&] { order.push_back(2); });
    queue.drain();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

}  // namespace
}  // namespace corvane
