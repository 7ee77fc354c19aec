// An AppState on a real embedded record store and object cache in a fresh folder, driven by a
// plain main loop, with a receiver that records every event it is given.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "app/app_state.h"
#include "cloud/sqlite_connection.h"
#include "support/process.h"

namespace corvane::testing {

class Recorder : public EventDelegate {
  public:
    void handleEvent(const Event& event) override { events.push_back(event); }

    template <typename Case>
    std::vector<Case> all() const {
        std::vector<Case> found;
        for (const auto& event : events) {
            if (const auto* match = std::get_if<Case>(&event)) found.push_back(*match);
        }
        return found;
    }
    std::vector<std::size_t> kinds() const {
        std::vector<std::size_t> indexes;
        for (const auto& event : events)
            indexes.push_back(event.index());
        return indexes;
    }

    std::vector<Event> events;
};

template <typename Case>
constexpr std::size_t kindOf() {
    return Event(Case{}).index();
}

struct AppFixture : ::testing::Test {
    TempDir dir;
    LoopMainQueue mainQueue;
    // Statements until the store fails with `faultCode`; 0 never fails.
    std::atomic<int> countdown{0};
    std::atomic<int> faultCode{0};
    // Set by rewriteSavedFields; declared before the state, whose store uses it at once.
    std::mutex rewriteMutex;
    std::optional<std::pair<std::string, std::string>> rewrite;  // guarded by rewriteMutex
    std::unique_ptr<AppState> state = std::make_unique<AppState>(
        mainQueue, openContainer("owner@example.com"), dir.path() + "/cache/Objects",
        Store::Timing{.runExpiryThread = false});
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

    AppFixture() { state->registerDelegate(recorder); }
    ~AppFixture() override {
        state.reset();  // stops the backend before the loop goes
    }

    std::unique_ptr<cloud::Container> openContainer(const std::string& email) {
        cloud::ContainerOptions options;
        options.assetCacheDirectory = dir.path() + "/cache/Assets-" + email;
        options.account.email = email;
        auto file = std::filesystem::path(dir.path()) / "cloud.sqlite";
        return cloud::Container::open(
            [this, file]() -> std::unique_ptr<cloud::Connection> {
                return std::make_unique<FailingConnection>(cloud::SqliteConnection::open(file),
                                                           *this);
            },
            options);
    }

    // Records saved from now on store `to` wherever their fields hold `from` (same length), as
    // if the cloud kept another spelling of what it was given.
    void rewriteSavedFields(std::string from, std::string to) {
        std::lock_guard lock(rewriteMutex);
        rewrite = {std::move(from), std::move(to)};
    }

    // The next statement the store runs fails with the cloud code.
    void failNext(int code) {
        faultCode = code;
        countdown = 1;
    }

    // Cloud operations (transactions, and statements outside any) counted from now on; the
    // operation numbered `at` fails with code 1 where `when` says.
    enum class FailWhen { never, atStart, insteadOfCommit, afterCommit };
    std::atomic<int> operations{0};
    std::atomic<int> failOperation{0};
    std::atomic<FailWhen> failWhen{FailWhen::never};
    void failOperationAt(int at, FailWhen when) {
        operations = 0;
        failOperation = at;
        failWhen = when;
    }

    // Runs main-queue tasks until the test holds (or ten seconds pass).
    // Until a creation's own news is in: its row replaced (RepositoryModified) and the reload
    // after it. An earlier reload's event must not end the wait while these are on their way.
    bool pumpUntilCreated() {
        return pumpUntil([&] {
            bool created = false;
            for (const auto& event : recorder->events) {
                created = created || std::holds_alternative<event::RepositoryModified>(event);
                if (created && std::holds_alternative<event::RepositoriesModified>(event))
                    return true;
            }
            return false;
        });
    }

    bool pumpUntil(const std::function<bool()>& done) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            mainQueue.drain();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }
    // Runs until `count` events of the case have arrived.
    template <typename Case>
    bool pumpFor(std::size_t count = 1) {
        return pumpUntil([&] { return recorder->all<Case>().size() >= count; });
    }

  private:
    // Passes statements to SQLite until the fixture's countdown reaches one, which fails, and
    // fails the operation the fixture names where it says.
    class FailingConnection final : public cloud::Connection {
      public:
        FailingConnection(std::unique_ptr<cloud::Connection> inner, AppFixture& fixture)
            : inner_(std::move(inner)), fixture_(fixture) {}
        cloud::SqlDialect dialect() const override { return inner_->dialect(); }
        void begin(cloud::TransactionMode mode) override {
            tick();
            startOperation();
            inner_->begin(mode);
            inTransaction_ = true;
        }
        void commit() override {
            if (failing(FailWhen::insteadOfCommit)) throw CloudError(1, "injected failure");
            inner_->commit();
            inTransaction_ = false;
            if (failing(FailWhen::afterCommit)) throw CloudError(1, "injected failure");
        }
        void rollback() noexcept override {
            inner_->rollback();
            inTransaction_ = false;
        }
        void releaseFreeSpace() override { inner_->releaseFreeSpace(); }

      protected:
        std::int64_t run(std::string_view sql, std::span<const cloud::SqlParam> params,
                         const cloud::RowHandler& onRow) override {
            tick();
            if (!inTransaction_) {
                // A statement on its own is an operation of its own, committed as it runs.
                startOperation();
                if (failing(FailWhen::insteadOfCommit)) throw CloudError(1, "injected failure");
                auto changed = forward(sql, params, onRow);
                if (failing(FailWhen::afterCommit)) throw CloudError(1, "injected failure");
                return changed;
            }
            return forward(sql, params, onRow);
        }

      private:
        std::int64_t forward(std::string_view sql, std::span<const cloud::SqlParam> params,
                             const cloud::RowHandler& onRow) {
            std::optional<std::pair<std::string, std::string>> rewrite;
            {
                std::lock_guard lock(fixture_.rewriteMutex);
                rewrite = fixture_.rewrite;
            }
            if (!rewrite || !sql.starts_with("INSERT INTO records")) {
                return inner_->execute(sql, params, onRow);
            }
            std::vector<cloud::SqlParam> changed(params.begin(), params.end());
            std::vector<Bytes> copies;
            copies.reserve(changed.size());
            for (auto& param : changed) {
                const auto* blob = std::get_if<ByteView>(&param);
                if (!blob) continue;
                Bytes& copy = copies.emplace_back(blob->begin(), blob->end());
                auto from = asBytes(rewrite->first);
                for (auto at = std::search(copy.begin(), copy.end(), from.begin(), from.end());
                     at != copy.end(); at = std::search(at, copy.end(), from.begin(), from.end())) {
                    at = std::copy(rewrite->second.begin(), rewrite->second.end(), at);
                }
                param = ByteView(copy);
            }
            return inner_->execute(sql, changed, onRow);
        }

        void startOperation() {
            current_ = ++fixture_.operations;
            if (failing(FailWhen::atStart)) throw CloudError(1, "injected failure");
        }
        bool failing(FailWhen when) const {
            return current_ == fixture_.failOperation && fixture_.failWhen == when;
        }
        void tick() {
            int left = fixture_.countdown.load();
            while (left > 0 && !fixture_.countdown.compare_exchange_weak(left, left - 1)) {
            }
            if (left == 1) {
                throw CloudError(fixture_.faultCode, "injected failure");
            }
        }
        std::unique_ptr<cloud::Connection> inner_;
        AppFixture& fixture_;
        bool inTransaction_ = false;
        int current_ = 0;  // the operation this connection is in
    };
};

}  // namespace corvane::testing
