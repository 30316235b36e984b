#include "platform/DateFormatter.h"

#include <unicode/calendar.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <stdexcept>

namespace jx {

DateFormatter::DateFormatter(const std::string& pattern, const std::string& locale) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale loc(locale.c_str());
    format_ = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern), loc, status);
    if (U_FAILURE(status)) throw std::runtime_error("date formatter: " + std::string(u_errorName(status)));
    std::unique_ptr<icu::Calendar> cal(icu::Calendar::createInstance(icu::TimeZone::createDefault(), loc, status));
    if (U_FAILURE(status)) throw std::runtime_error("calendar: " + std::string(u_errorName(status)));
    format_->adoptCalendar(cal.release());
    format_->setLenient(false);
}

DateFormatter::~DateFormatter() = default;

std::string DateFormatter::stringFromDate(Date date) {
    icu::UnicodeString out;
    format_->format(static_cast<UDate>(date.secondsSince1970 * 1000.0), out);
    std::string s;
    out.toUTF8String(s);
    return s;
}

std::optional<Date> DateFormatter::dateFromString(const std::string& text) {
    icu::UnicodeString in = icu::UnicodeString::fromUTF8(text);
    icu::ParsePosition pos(0);
    UDate d = format_->parse(in, pos);
    if (pos.getErrorIndex() >= 0 || pos.getIndex() != in.length()) return std::nullopt;
    Date result{d / 1000.0};
    // Strict mode still takes short fields ("2026-1-5-1200"); the round trip does not.
    if (stringFromDate(result) != text) return std::nullopt;
    return result;
}

std::unique_ptr<icu::Calendar> DateFormatter::copyCalendar() {
    std::unique_ptr<icu::Calendar> cal(format_->getCalendar()->clone());
    // Calendar arithmetic must resolve a midnight that a clock change skips.
    cal->setLenient(true);
    UErrorCode status = U_ZERO_ERROR;
    cal->setTime(icu::Calendar::getNow(), status);
    return cal;
}

}  // namespace jx
