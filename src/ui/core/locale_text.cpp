#include "ui/core/locale_text.h"

#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>

#include "app/elapsed_time_formatter.h"
#include "app/quoted_name.h"
#include "ui/core/text.h"

namespace corvane::ui {

namespace {

std::string quoteName(std::string_view name) {
    return toStdString(QLocale().quoteString(toQString(name)));
}

}  // namespace

QString mediumDateFormat(const QLocale& locale) {
    // The locale's long form without the weekday and with the month abbreviated ("Jan 5, 2025",
    // "5. Jan. 2025"): Qt has no medium form, and the short one ("1/5/25") reads as a code.
    QString format = locale.dateFormat(QLocale::LongFormat);
    format.remove(QRegularExpression(QStringLiteral("dddd[,.]?\\s*")));
    format.replace(QStringLiteral("MMMM"), QStringLiteral("MMM"));
    return format.trimmed();
}

namespace {

std::string formatDate(ElapsedTimeFormatter::Clock::time_point date) {
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch());
    QDate day = QDateTime::fromSecsSinceEpoch(seconds.count()).date();
    return toStdString(QLocale().toString(day, mediumDateFormat(QLocale())));
}

}  // namespace

void useQtLocale() {
    setNameQuoter(quoteName);
    ElapsedTimeFormatter::setDateFormat(formatDate);
}

}  // namespace corvane::ui
