// Captures the log lines written while it lives, from any thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/trace.h"

namespace corvane::testing {

class TraceCapture {
  public:
    TraceCapture() {
        setTraceSink([this](std::string_view line) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(line);
        });
    }
    ~TraceCapture() { setTraceSink({}); }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<std::string> lines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }

    bool contains(const std::string& line) {
        auto all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    }

    // Waits (bounded) for a line written by another thread.
    bool waitFor(const std::string& line,
                 std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            if (contains(line)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace corvane::testing
