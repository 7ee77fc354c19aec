// UTF-8 checks for text that arrives from the network or from stored objects.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF).
bool isValidUtf8(std::string_view bytes);

// The text without newline characters (LF, VT, FF, CR, NEL, LS, PS) at either end.
std::string_view trimNewlines(std::string_view text);

// The text in double quotes with quotes, backslashes and control characters escaped.
std::string quotedLiteral(std::string_view text);

}  // namespace corvane
