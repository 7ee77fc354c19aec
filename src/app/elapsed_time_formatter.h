// ElapsedTimeFormatter: how long ago something happened, as lists show it: "just now" under a
// minute, "5 minutes ago" (only the largest whole unit) under 30 days, and the medium date
// without time ("Nov 23, 2026", in local time) after the prefix given at creation beyond that.
// Immutable after creation; any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace corvane {

class ElapsedTimeFormatter {
  public:
    using Clock = std::chrono::system_clock;
    static constexpr std::chrono::seconds kAbsoluteDateThreshold{2592000};  // 30 days

    // "on " in the commit list, empty elsewhere.
    explicit ElapsedTimeFormatter(std::string absoluteDatePrefix);

    // No date gives the empty string; a future date reads "just now".
    std::string string(const std::optional<Clock::time_point>& date,
                       Clock::time_point now = Clock::now()) const;

    // The window hands in its toolkit's date format for the user's locale, used from then on
    // for absolute dates. Set it before other threads start formatting.
    using DateFormat = std::string (*)(Clock::time_point date);
    static void setDateFormat(DateFormat format);

  private:
    std::string absoluteDatePrefix_;
};

}  // namespace corvane
