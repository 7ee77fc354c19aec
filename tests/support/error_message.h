// The message of the error a call throws, or "no error".
#pragma once

#include <exception>
#include <string>

namespace corvane::testing {

template <typename Call>
std::string errorMessage(Call&& call) {
    try {
        call();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

}  // namespace corvane::testing
