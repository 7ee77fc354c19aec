// The user's locale, through Qt, for the texts the lower layers build: quotation marks around
// names in messages, and the dates lists show beyond a month.
#pragma once

namespace corvane::ui {

// Installs both into the application layer; call once at start-up, before other threads run.
void useQtLocale();

}  // namespace corvane::ui
