#include "app/elapsed_time_formatter.h"

#include <atomic>
#include <ctime>

namespace corvane {

namespace {

// The largest whole unit of a duration of at least a minute: "1 minute", "3 hours", "2 days".
std::string durationText(std::chrono::seconds elapsed) {
    struct Unit {
        const char* name;
        std::chrono::seconds length;
    };
    constexpr Unit kUnits[] = {{"day", std::chrono::hours(24)},
                               {"hour", std::chrono::hours(1)},
                               {"minute", std::chrono::minutes(1)}};
    for (const auto& unit : kUnits) {
        auto count = elapsed / unit.length;
        if (count >= 1) {
            return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
        }
    }
    return {};
}

std::atomic<ElapsedTimeFormatter::DateFormat> installedFormat{nullptr};

std::string mediumDate(ElapsedTimeFormatter::Clock::time_point date) {
    if (auto format = installedFormat.load()) return format(date);
    std::time_t time = ElapsedTimeFormatter::Clock::to_time_t(date);
    std::tm local{};
    localtime_r(&time, &local);
    char month[32];
    std::size_t length = std::strftime(month, sizeof month, "%b", &local);
    return std::string(month, length) + " " + std::to_string(local.tm_mday) + ", " +
           std::to_string(local.tm_year + 1900);
}

}  // namespace

void ElapsedTimeFormatter::setDateFormat(DateFormat format) {
    installedFormat = format;
}

ElapsedTimeFormatter::ElapsedTimeFormatter(std::string absoluteDatePrefix)
    : absoluteDatePrefix_(std::move(absoluteDatePrefix)) {}

std::string ElapsedTimeFormatter::string(const std::optional<Clock::time_point>& date,
                                         Clock::time_point now) const {
    if (!date) return {};
    auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(now - *date);
    if (elapsed < std::chrono::minutes(1)) return "just now";
    if (elapsed < kAbsoluteDateThreshold) {
        std::string duration = durationText(elapsed);
        if (!duration.empty()) return duration + " ago";
    }
    return absoluteDatePrefix_ + mediumDate(*date);
}

}  // namespace corvane
