// Share URLs: "corvane://share/<token>#<title>", where the token (32 hex digits) finds the share
// and the fragment, the percent-encoded title, only tells a person what the link is. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane::cloud {

std::string makeShareUrl(std::string_view token, const std::optional<std::string>& title);
// The title as a URL's fragment: percent-encoded, empty for none.
std::string shareUrlFragment(const std::optional<std::string>& title);

// The title a share URL's fragment names, percent-decoded ("Ärger tracker"); none without one.
std::optional<std::string> shareTitle(std::string_view url);

// The token of a well-formed share URL.
std::optional<std::string> shareToken(std::string_view url);

}  // namespace corvane::cloud
