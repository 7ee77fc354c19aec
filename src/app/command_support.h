// What the one-shot subcommands share: a plain main loop with the application on it, a way to
// wait for an asynchronous backend operation, and errors worded as the window words them.
#pragma once

#include <exception>
#include <optional>
#include <string>

#include "app/application.h"
#include "app/error_description.h"
#include "base/error.h"
#include "base/queues.h"
#include "base/result.h"

namespace corvane {

// A command used the wrong way: the message, then the usage text, exit status 2.
class UsageError : public Error {
  public:
    using Error::Error;
};

// One subcommand's run: the application on a main loop that runs only while it waits.
struct CommandSession {
    LoopMainQueue mainQueue;
    Application application{mainQueue};

    Backend& backend() { return application.state().backend(); }

    // Runs an asynchronous backend operation until it completes; its error is thrown.
    template <typename T, typename Start>
    T await(Start start) {
        std::optional<Result<T>> outcome;
        start([&](Result<T> result) {
            outcome.emplace(std::move(result));
            mainQueue.stop();
        });
        mainQueue.run();
        return std::move(outcome->value());
    }
};

// The failure being handled, as people are told it: "Failed to delete 'tools': Record does not
// exist."
inline Error described(const std::string& message) {
    return Error(message + ": " + describeError(std::current_exception()).text);
}

}  // namespace corvane
