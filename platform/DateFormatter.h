// A date formatter over ICU: a fixed pattern, a locale, that locale's calendar and
// the default time zone (TZ). It is not safe against itself across threads: every
// use happens while holding its monitor, the lock of the formatter object.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Value.h"

#include <unicode/uversion.h>

U_NAMESPACE_BEGIN
class Calendar;
class SimpleDateFormat;
U_NAMESPACE_END

namespace jx {

class DateFormatter {
public:
    DateFormatter(const std::string& pattern, const std::string& locale);
    ~DateFormatter();

    std::recursive_mutex& monitor() { return monitor_; }
    // Both are to be called holding monitor().
    std::string stringFromDate(Date date);
    // Exact parsing: the whole text must be consumed and formatting the result
    // must give the text back; nullopt otherwise.
    std::optional<Date> dateFromString(const std::string& text);
    // A copy of the formatter's calendar (same locale and zone), set to now.
    std::unique_ptr<icu::Calendar> copyCalendar();

private:
    std::recursive_mutex monitor_;
    std::unique_ptr<icu::SimpleDateFormat> format_;
};

}  // namespace jx
