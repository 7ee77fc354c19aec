#include "cloud/share_url.h"

namespace corvane::cloud {
namespace {

constexpr std::string_view kPrefix = "corvane://share/";
constexpr std::size_t kTokenLength = 32;

bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string shareUrlFragment(const std::optional<std::string>& title) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string fragment;
    for (char c : title.value_or("")) {
        if (isUnreserved(c)) {
            fragment += c;
        } else {
            auto byte = static_cast<unsigned char>(c);
            fragment += '%';
            fragment += kDigits[byte >> 4];
            fragment += kDigits[byte & 0x0f];
        }
    }
    return fragment;
}

std::string makeShareUrl(std::string_view token, const std::optional<std::string>& title) {
    std::string url(kPrefix);
    url += token;
    auto fragment = shareUrlFragment(title);
    if (!fragment.empty()) url += '#' + fragment;
    return url;
}

std::optional<std::string> shareToken(std::string_view url) {
    if (!url.starts_with(kPrefix)) return std::nullopt;
    auto rest = url.substr(kPrefix.size());
    auto token = rest.substr(0, rest.find('#'));
    if (token.size() != kTokenLength) return std::nullopt;
    for (char c : token) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::nullopt;
    }
    return std::string(token);
}

std::optional<std::string> shareTitle(std::string_view url) {
    auto hash = url.find('#');
    if (hash == std::string_view::npos || hash + 1 == url.size()) return std::nullopt;
    auto fragment = url.substr(hash + 1);
    std::string title;
    for (std::size_t i = 0; i < fragment.size(); ++i) {
        bool escape = fragment[i] == '%' && i + 2 < fragment.size() &&
                      hexValue(fragment[i + 1]) >= 0 && hexValue(fragment[i + 2]) >= 0;
        if (escape) {
            int high = hexValue(fragment[i + 1]);
            int low = hexValue(fragment[i + 2]);
            title += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            title += fragment[i];  // not an escape: kept as typed
        }
    }
    return title;
}

}  // namespace corvane::cloud
