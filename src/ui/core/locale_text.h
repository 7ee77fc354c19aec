// The user's locale, through Qt, for the texts the lower layers build: quotation marks around
// names in messages, and the dates lists show beyond a month.
#pragma once

#include <QLocale>
#include <QString>

namespace corvane::ui {

// The locale's date pattern of middle length: "MMM d, yyyy" in English.
QString mediumDateFormat(const QLocale& locale);

// Installs both into the application layer; call once at start-up, before other threads run.
void useQtLocale();

}  // namespace corvane::ui
