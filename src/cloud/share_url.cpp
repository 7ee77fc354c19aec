#include "cloud/share_url.h"

namespace corvane::cloud {
namespace {

constexpr std::string_view kPrefix = "corvane://share/";
constexpr std::size_t kTokenLength = 32;

bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

}  // namespace

std::string makeShareUrl(std::string_view token, const std::optional<std::string>& title) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string url(kPrefix);
    url += token;
    if (title && !title->empty()) {
        url += '#';
        for (char c : *title) {
            if (isUnreserved(c)) {
                url += c;
            } else {
                auto byte = static_cast<unsigned char>(c);
                url += '%';
                url += kDigits[byte >> 4];
                url += kDigits[byte & 0x0f];
            }
        }
    }
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

}  // namespace corvane::cloud
