#include "base/utf8.h"

#include <cstdint>
#include <cstdio>

namespace corvane {

bool isValidUtf8(std::string_view bytes) {
    std::size_t i = 0;
    const std::size_t n = bytes.size();
    while (i < n) {
        auto byte = static_cast<std::uint8_t>(bytes[i]);
        if (byte < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        std::uint32_t value;
        if ((byte & 0xe0) == 0xc0) {
            length = 2;
            value = byte & 0x1f;
        } else if ((byte & 0xf0) == 0xe0) {
            length = 3;
            value = byte & 0x0f;
        } else if ((byte & 0xf8) == 0xf0) {
            length = 4;
            value = byte & 0x07;
        } else {
            return false;
        }
        if (n - i < length) return false;
        for (std::size_t k = 1; k < length; ++k) {
            auto next = static_cast<std::uint8_t>(bytes[i + k]);
            if ((next & 0xc0) != 0x80) return false;
            value = (value << 6) | (next & 0x3f);
        }
        static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (value < kSmallest[length] || value > 0x10ffff) return false;
        if (value >= 0xd800 && value <= 0xdfff) return false;
        i += length;
    }
    return true;
}

namespace {

// Length of the newline character that ends `text`, or 0.
std::size_t trailingNewline(std::string_view text) {
    if (text.empty()) return 0;
    char last = text.back();
    if (last == '\n' || last == '\v' || last == '\f' || last == '\r') return 1;
    if (text.ends_with("\xc2\x85")) return 2;
    if (text.ends_with("\xe2\x80\xa8") || text.ends_with("\xe2\x80\xa9")) return 3;
    return 0;
}

std::size_t leadingNewline(std::string_view text) {
    if (text.empty()) return 0;
    char first = text.front();
    if (first == '\n' || first == '\v' || first == '\f' || first == '\r') return 1;
    if (text.starts_with("\xc2\x85")) return 2;
    if (text.starts_with("\xe2\x80\xa8") || text.starts_with("\xe2\x80\xa9")) return 3;
    return 0;
}

}  // namespace

std::string_view trimNewlines(std::string_view text) {
    while (auto n = leadingNewline(text))
        text.remove_prefix(n);
    while (auto n = trailingNewline(text))
        text.remove_suffix(n);
    return text;
}

std::string quotedLiteral(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\0':
                out += "\\0";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u{%x}", static_cast<unsigned>(c));
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

}  // namespace corvane
