// Result: the value of an operation that completes later, or the error it failed with.
#pragma once

#include <exception>
#include <functional>
#include <utility>
#include <variant>

namespace corvane {

template <typename T>
class Result {
  public:
    Result(T value) : state_(std::move(value)) {}
    Result(std::exception_ptr error) : state_(std::move(error)) {}

    bool ok() const { return state_.index() == 0; }
    // The value, or the error rethrown.
    T& value() {
        if (!ok()) std::rethrow_exception(std::get<1>(state_));
        return std::get<0>(state_);
    }
    std::exception_ptr error() const { return ok() ? nullptr : std::get<1>(state_); }

  private:
    std::variant<T, std::exception_ptr> state_;
};

// The result of an operation without a value.
struct Done {};

template <typename T>
using Completion = std::function<void(Result<T>)>;

}  // namespace corvane
