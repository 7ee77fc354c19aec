// Conversions at the edge between the model's UTF-8 text and bytes and Qt's strings and byte
// arrays, and the counted words the views show ("1 Commit", "12 Commits").
#pragma once

#include <QByteArray>
#include <QString>
#include <string>
#include <string_view>

#include "base/bytes.h"

namespace corvane::ui {

inline QString toQString(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

inline std::string toStdString(const QString& text) {
    return text.toStdString();
}

// An object's contents as Qt takes them (a copy).
inline QByteArray toQByteArray(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size())};
}

// The count in decimal, a space, and the singular for exactly 1, the plural otherwise.
inline QString counted(std::size_t count, const QString& singular, const QString& plural) {
    return QString::number(count) + QLatin1Char(' ') + (count == 1 ? singular : plural);
}

}  // namespace corvane::ui
