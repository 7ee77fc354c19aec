// MainQueue and WorkQueue: where work runs. The main queue serialises everything that touches the
// application state; a work queue is a small pool of named threads for blocking work. Both
// accept tasks from any thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace corvane {

using Task = std::function<void()>;

// The main thread's queue. The window posts to the Qt event loop; `serve` and the tests run a
// LoopMainQueue on the main thread.
class MainQueue {
  public:
    virtual ~MainQueue() = default;
    // Runs the task later on the main thread, after every task submitted before it.
    virtual void async(Task task) = 0;
};

// A plain main loop: run() executes tasks in submission order on the calling thread until
// stop() is called (from any thread, or from a task).
class LoopMainQueue : public MainQueue {
  public:
    void async(Task task) override;
    void run();
    void stop();
    // Runs the tasks queued so far and those they queue, then returns; for tests.
    void drain();

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;  // guarded by mutex_
    bool stopping_ = false;   // guarded by mutex_
};

// A fixed pool of threads named `name`. Destroying it runs the queued tasks to the end and joins
// every thread.
class WorkQueue {
  public:
    WorkQueue(std::string name, unsigned threads);
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    void async(Task task);

  private:
    void work();

    std::string name_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;  // guarded by mutex_
    bool stopping_ = false;   // guarded by mutex_
    std::vector<std::thread> threads_;
};

// Names the calling thread for debuggers and logs (at most 15 characters are kept).
void setThreadName(const std::string& name);

}  // namespace corvane
