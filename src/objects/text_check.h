// How the object parsers treat text that is not UTF-8. Git stores messages and file names as
// bytes (a commit's "encoding" header may name a legacy encoding), so a reader of links alone
// accepts any bytes, while text meant for people is checked.
#pragma once

namespace corvane {

enum class TextCheck { utf8, none };

}  // namespace corvane
