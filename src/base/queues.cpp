#include "base/queues.h"

#include <pthread.h>

namespace corvane {

void LoopMainQueue::async(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    changed_.notify_one();
}

void LoopMainQueue::run() {
    for (;;) {
        Task task;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return stopping_ || !tasks_.empty(); });
            if (stopping_) {
                stopping_ = false;
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
}

void LoopMainQueue::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
}

void LoopMainQueue::drain() {
    for (;;) {
        Task task;
        {
            std::lock_guard lock(mutex_);
            if (tasks_.empty()) return;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
}

WorkQueue::WorkQueue(std::string name, unsigned threads) : name_(std::move(name)) {
    for (unsigned i = 0; i < threads; ++i)
        threads_.emplace_back([this] { work(); });
}

WorkQueue::~WorkQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (auto& thread : threads_)
        thread.join();
}

void WorkQueue::async(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    changed_.notify_one();
}

void WorkQueue::work() {
    setThreadName(name_);
    for (;;) {
        Task task;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty()) return;  // stopping, and nothing left to run
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
}

void setThreadName(const std::string& name) {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

}  // namespace corvane
