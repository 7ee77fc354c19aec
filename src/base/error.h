// Error: the one failure type of the system. Its what() is the message a person or a git client
// sees; callers pass it on unchanged. Thread-safe as a value.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace corvane {

class Error : public std::runtime_error {
  public:
    explicit Error(const std::string& message) : std::runtime_error(message) {}
};

// What was asked for does not exist (a repository, a record); callers may go on without it.
class NotFound : public Error {
  public:
    using Error::Error;
};

// Someone else changed what this operation started from; the caller may re-read and retry.
class Conflict : public Error {
  public:
    using Error::Error;
};

// A failure of the cloud record store, carrying its numeric code and, when the store gave one,
// a description meant for people that takes precedence over the generic text for the code.
class CloudError : public Error {
  public:
    CloudError(int code, const std::string& message,
               std::optional<std::string> serverDescription = std::nullopt)
        : Error(message), code_(code), serverDescription_(std::move(serverDescription)) {}

    int code() const { return code_; }
    const std::optional<std::string>& serverDescription() const { return serverDescription_; }

  private:
    int code_;
    std::optional<std::string> serverDescription_;
};

}  // namespace corvane
