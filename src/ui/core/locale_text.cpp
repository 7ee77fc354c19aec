#include "ui/core/locale_text.h"

#include <QDateTime>
#include <QLocale>

#include "app/elapsed_time_formatter.h"
#include "app/quoted_name.h"
#include "ui/core/text.h"

namespace corvane::ui {

namespace {

std::string quoteName(std::string_view name) {
    return toStdString(QLocale().quoteString(toQString(name)));
}

std::string formatDate(ElapsedTimeFormatter::Clock::time_point date) {
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch());
    QDate day = QDateTime::fromSecsSinceEpoch(seconds.count()).date();
    return toStdString(QLocale().toString(day, QLocale::ShortFormat));
}

}  // namespace

void useQtLocale() {
    setNameQuoter(quoteName);
    ElapsedTimeFormatter::setDateFormat(formatDate);
}

}  // namespace corvane::ui
