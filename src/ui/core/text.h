// Conversions at the edge between the model's UTF-8 text and Qt's strings, and the counted
// words the views show ("1 Commit", "12 Commits").
#pragma once

#include <QString>
#include <string>
#include <string_view>

namespace corvane::ui {

inline QString toQString(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

inline std::string toStdString(const QString& text) {
    return text.toStdString();
}

// The count in decimal, a space, and the singular for exactly 1, the plural otherwise.
inline QString counted(std::size_t count, const QString& singular, const QString& plural) {
    return QString::number(count) + QLatin1Char(' ') + (count == 1 ? singular : plural);
}

}  // namespace corvane::ui
