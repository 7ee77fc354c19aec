// Names put into messages for people, in the quotation marks of the user's language (from
// LC_ALL, LC_MESSAGES or LANG, in that order), or in apostrophes where the locale has none
// (C, POSIX, or a language without an entry). Any thread.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

std::string quotedName(std::string_view name);

// The window hands in its toolkit's rule for the user's locale, used from then on instead of the
// table. Set it before other threads start quoting.
using NameQuoter = std::string (*)(std::string_view name);
void setNameQuoter(NameQuoter quoter);

}  // namespace corvane
