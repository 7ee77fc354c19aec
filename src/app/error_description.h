// What people are told about a failure: the cloud's terse codes become short sentences, a
// description the server gave wins over them, and "not signed in" is a state, not an error.
// Pure functions; any thread.
#pragma once

#include <exception>
#include <optional>
#include <string>

namespace corvane {

struct ErrorDescription {
    std::string text;        // the displayed error's description
    bool signedOut = false;  // the account is not signed in: show that state, not an alert
};

// The sentence for a cloud code, or nothing for codes the table does not list (and for 9).
std::optional<std::string> cloudErrorText(int code);

ErrorDescription describeError(const std::exception_ptr& error);

}  // namespace corvane
