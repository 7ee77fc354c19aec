#include "app/quoted_name.h"

#include <atomic>
#include <cstdlib>
#include <string>

namespace corvane {

namespace {

struct Delimiters {
    std::string_view language;
    std::string_view begin;
    std::string_view end;
};

constexpr Delimiters kDelimiters[] = {
    {"cs", "„", "“"}, {"da", "“", "”"}, {"de", "„", "“"}, {"en", "“", "”"},   {"es", "«", "»"},
    {"fi", "”", "”"}, {"fr", "«", "»"}, {"it", "«", "»"}, {"ja", "「", "」"}, {"ko", "“", "”"},
    {"nb", "«", "»"}, {"nl", "‘", "’"}, {"pl", "„", "”"}, {"pt", "“", "”"},   {"ru", "«", "»"},
    {"sv", "”", "”"}, {"uk", "«", "»"}, {"zh", "“", "”"},
};

// The language of the messages locale: "de" of "de_CH.UTF-8"; empty for C and POSIX.
std::string_view messagesLanguage() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (!value || !*value) continue;
        std::string_view locale(value);
        return locale.substr(0, locale.find_first_of("_.@"));
    }
    return {};
}

std::atomic<NameQuoter> installedQuoter{nullptr};

}  // namespace

void setNameQuoter(NameQuoter quoter) {
    installedQuoter = quoter;
}

std::string quotedName(std::string_view name) {
    if (auto quoter = installedQuoter.load()) return quoter(name);
    std::string_view language = messagesLanguage();
    for (const auto& delimiters : kDelimiters) {
        if (delimiters.language == language) {
            return std::string(delimiters.begin) + std::string(name) + std::string(delimiters.end);
        }
    }
    return "'" + std::string(name) + "'";
}

}  // namespace corvane
