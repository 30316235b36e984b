// Rotation: whether a start continues the current log or rolls it away, the
// state entries that record the decision, and the rollover timer.
#include <unicode/calendar.h>
#include <unistd.h>

#include <cmath>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/Clock.h"
#include "platform/JXLogWriter.h"
#include "platform/JXUtilities.h"
#include "platform/NotificationNames.h"
#include "platform/Root.h"
#include "platform/SystemLog.h"
#include "platform/WallClockTimer.h"

namespace {

jx::Date toDate(UDate ms) { return jx::Date{ms / 1000.0}; }

JXValue dateOrNil(const std::optional<jx::Date>& d) {
    return JXValue::valueWithGeneric(d ? jx::Value(*d) : jx::Value(), "", JXValue::kGeneric);
}

}  // namespace

JoulixMain::RotationSetting JoulixMain::rotationSetting() {
    jx::Value value = JXDefaultsCopyValueForKey(JXRotateJoulixKey);
    if (value.isNil()) return {1, RotationUnit::Day};
    RotationSetting setting{0, RotationUnit::Day};
    bool supported = true;
    if (value.isNumber()) {
        setting.n = value.integerValue();
    } else if (const std::string* text = value.asString()) {
        std::vector<std::string> words = jx::componentsSeparatedBy(*text, ' ');
        setting.n = jx::integerValueOfString(words[0]);
        if (words.size() >= 2) {
            if (words[1] == "minute") setting.unit = RotationUnit::Minute;
            else if (words[1] == "hour") setting.unit = RotationUnit::Hour;
            else if (words[1] == "day") setting.unit = RotationUnit::Day;
            else supported = false;
        }
    } else {
        supported = false;
    }
    if (setting.n == -1) supported = false;
    if (!supported) {
        jx::systemLogf(jx::kLogNotice, "Unsupported %s value %s", JXRotateJoulixKey, value.description().c_str());
        return {1, RotationUnit::Day};
    }
    return setting;
}

std::optional<std::string> JoulixMain::rotationSettingProblem(const jx::Value& value) {
    if (value.isNil()) return std::nullopt;
    std::int64_t n = 0;
    std::string unit = "day";
    if (value.isNumber()) {
        n = value.integerValue();
    } else if (const std::string* text = value.asString()) {
        std::vector<std::string> words = jx::componentsSeparatedBy(*text, ' ');
        n = jx::integerValueOfString(words[0]);
        if (words.size() >= 2) unit = words[1];
        if (unit != "minute" && unit != "hour" && unit != "day")
            return "the unit '" + unit + "' is none of minute, hour, day: the daemon rolls once a day";
        if (n == 0 && words[0] != "0")
            return "'" + words[0] + "' reads as 0, which turns rotation off (write \"0\" to mean that)";
    } else {
        return "a rotation is a number of days or a text \"N minute|hour|day\": the daemon rolls once a day";
    }
    if (n == -1) return "-1 is not supported: the daemon rolls once a day";
    if (n < 0) return "a negative period gives no future rollover: the daemon rolls once a day";
    if (n == 0) return "0 turns rotation off: every start begins a new log";
    const std::int64_t longest = unit == "minute" ? 24 * 60 : unit == "hour" ? 24 : 31;
    if (n > longest)
        return "the period is longer than a " + std::string(unit == "day" ? "month" : "day") +
               ": it is cut to end at the next " + (unit == "day" ? "first of the month" : "midnight");
    return std::nullopt;
}

bool JoulixMain::shouldRotateLogFilesWithPeriodStart(std::optional<jx::Date>* periodStart,
                                                     std::optional<jx::Date>* withRolloverDate) {
    if (!logToFile()) return false;
    RotationSetting setting = rotationSetting();
    if (setting.n == 0) return false;

    const jx::Date now = jx::Clock::current().now();
    std::optional<std::pair<jx::Date, jx::Date>> period = periodForSetting(setting, now);
    if (!period) return false;
    // A negative n gives a rollover date in the past, which would roll the log again
    // at once, and again, until the disk is full: such a setting rolls daily instead.
    if (!(period->second > now) || !(period->second > period->first)) {
        jx::systemLogf(jx::kLogError, "the %s setting %s gives no future rollover: rolling once a day", JXRotateJoulixKey,
                       JXDefaultsCopyValueForKey(JXRotateJoulixKey).description().c_str());
        period = periodForSetting({1, RotationUnit::Day}, now);
        if (!period) return false;
    }
    if (periodStart) *periodStart = period->first;
    if (withRolloverDate) *withRolloverDate = period->second;
    return true;
}

std::optional<std::pair<jx::Date, jx::Date>> JoulixMain::periodForSetting(RotationSetting setting, jx::Date now) {
    std::unique_ptr<icu::Calendar> cal;
    {
        std::lock_guard lock(logTimestampFormatter_->monitor());
        cal = logTimestampFormatter_->copyCalendar();
    }
    UErrorCode status = U_ZERO_ERROR;
    cal->setTime(now.secondsSince1970 * 1000.0, status);
    const bool daysFromMonth = setting.unit == RotationUnit::Day && setting.n != 1;
    int32_t year = cal->get(UCAL_YEAR, status), month = cal->get(UCAL_MONTH, status);
    int32_t day = daysFromMonth ? 1 : cal->get(UCAL_DATE, status);
    cal->clear();
    cal->set(year, month, day, 0, 0, 0);
    const UDate basisMs = cal->getTime(status);
    cal->add(daysFromMonth ? UCAL_MONTH : UCAL_DATE, 1, status);
    const UDate nextBasisMs = cal->getTime(status);
    cal->setTime(basisMs, status);
    // n stays 64-bit until here: cut to the calendar's 32 bits, 2^32 minutes would be none.
    const bool inRange = setting.n >= INT32_MIN && setting.n <= INT32_MAX;
    const auto n = static_cast<int32_t>(inRange ? setting.n : 0);
    switch (setting.unit) {
        case RotationUnit::Minute: cal->add(UCAL_MINUTE, n, status); break;
        case RotationUnit::Hour: cal->add(UCAL_HOUR_OF_DAY, n, status); break;
        case RotationUnit::Day: cal->add(UCAL_DATE, setting.n == 1 ? 1 : n, status); break;
    }
    UDate firstMs = cal->getTime(status);
    if (U_FAILURE(status)) {
        jx::systemLogf(jx::kLogError, "rotation calendar: %s", u_errorName(status));
        return std::nullopt;
    }
    const jx::Date basis = toDate(basisMs), nextBasis = toDate(nextBasisMs);
    jx::Date first = inRange ? toDate(firstMs) : nextBasis;
    if (rotateDebugLogging_)
        JXLogWriter::sharedWriter().logDebug(
            "Log-ShouldRotateLogFiles", " basis=" + jx::describeDateUTC(basis) + " nextBasis=" + jx::describeDateUTC(nextBasis) +
                                            " first=" + jx::describeDateUTC(first));
    if (first > nextBasis || !inRange) {
        jx::systemLog("the log rollover increment is too large");
        first = nextBasis;
    }

    const double period = first.secondsSince1970 - basis.secondsSince1970;
    const double span = nextBasis.secondsSince1970 - basis.secondsSince1970;
    double elapsed = now.secondsSince1970 - basis.secondsSince1970;
    if (elapsed >= span) elapsed = span - 1;
    const double k = period == 0 ? 0 : std::floor(elapsed / period);
    jx::Date start{basis.secondsSince1970 + k * period};
    jx::Date rollover{start.secondsSince1970 + period};
    if (rollover > nextBasis) rollover = nextBasis;

    if (rotateDebugLogging_)
        JXLogWriter::sharedWriter().logDebug("Log-ShouldRotateLogFiles", " periodStart=" + jx::describeDateUTC(start) +
                                                                             " rolloverDate=" + jx::describeDateUTC(rollover));
    return std::make_pair(start, rollover);
}

bool JoulixMain::dateInRange(jx::Date date, jx::Date startInclusive, jx::Date endExclusive) {
    return startInclusive <= date && date < endExclusive;
}

void JoulixMain::startLoggingToFile() {
    std::weak_ptr<JoulixMain> weak = weak_from_this();
    JXUtilities::sharedDispatchQueue().async([weak] {
        if (auto self = weak.lock()) self->startLoggingToFileWork();
    });
}

void JoulixMain::startLoggingToFileWork() {
    const std::string current = jx::rootPath(kJXCurrentLogPath);
    if (!fileIsUnlockedAtPath(current, "Start Logging to File")) return;
    const jx::Date now = jx::Clock::current().now();

    std::optional<jx::Date> periodStart, rolloverDate;
    if (shouldRotateLogFilesWithPeriodStart(&periodStart, &rolloverDate)) {
        if (rotateDebugLogging_)
            JXLogWriter::sharedWriter().logDebug("Log-startLoggingToFile",
                                                 " shouldRotateLogFiles=YES; PeriodStart=" + jx::describeDateUTC(*periodStart) +
                                                     " RolloverDate=" + jx::describeDateUTC(*rolloverDate));
        std::string build;
        jx::Date logDate;
        if (readLogFilePrefix(current, &build, &logDate)) {
            if (build == JXUtilities::buildVersion() && dateInRange(logDate, *periodStart, *rolloverDate)) {
                logStateEvent("continue", logDate, periodStart, rolloverDate);
                stopLoggingAndCloseFile();
                startLoggingToCurrentLog(logDate);
            } else {
                logStateEvent("roll", logDate, periodStart, rolloverDate);
                stopLoggingAndCloseFile();
                // The old log's own name, from its header's timestamp and GUID.
                const std::string rolled = jx::rootPath(kJXCrashReportDirectory) + "/" + logFileNameForTimestamp(logDate);
                generateLogGatheringFiles(rolled);
                if (shouldLinkToFaultkeeper()) {
                    if (isSameHardLinkedFileAtPath(rolled, current)) {
                        deleteFileAtPath(current);
                    } else {
                        moveFileAtPath(rolled);
                        moveFileFromPath(current, rolled);
                    }
                }
            }
        } else {
            logStateEvent("Missing File", std::nullopt, std::nullopt, std::nullopt);
            stopLoggingAndCloseFile();
        }
        setRolloverTimer(rolloverDate);
    } else {
        logStateEvent("new", std::nullopt, std::nullopt, std::nullopt);
        stopLoggingAndCloseFile();
    }

    if (!logFile) {
        if (logToFile()) createNewCurrentLogWithTimestamp(now);
        startLoggingToCurrentLog(now);
        JXLogWriter::sharedWriter().blockOnWriteEntries();
    }
    if (currentLoggerMode() == 1) blackListTodayAsFullMode();
}

void JoulixMain::logStateEvent(const std::string& state, std::optional<jx::Date> existingLogDate,
                               std::optional<jx::Date> periodStart, std::optional<jx::Date> rolloverDate) {
    if (!shouldKeepRunning()) return;
    JXEntry entry("Log");
    entry.setObject(JXValue::valueWithString(state, "", JXValue::kString), "state");
    entry.setObject(dateOrNil(existingLogDate), "existingLogdate");
    entry.setObject(dateOrNil(periodStart), "periodStart");
    entry.setObject(dateOrNil(rolloverDate), "rolloverDate");
    entry.setObject(JXValue::valueWithString(rotateJoulixDefaultStringValue(), "", JXValue::kString), "rotateJoulixKey");
    entry.setObject(JXValue::valueWithString(currentLoggingModeString(), "", JXValue::kString), "loggingMode");
    entry.setObject(JXValue::valueWithString(JXUtilities::processName(), "", JXValue::kString), "binary");
    entry.setObject(JXValue::valueWithLong(getpid(), "", JXValue::kLong), "pid");
    if (state == "booting") JXLogWriter::sharedWriter().logAsFirstEntry(entry);
    else JXLogWriter::sharedWriter().logEntry(entry);
    if (rotateDebugLogging_) jx::systemLog(entry.description());
}

void JoulixMain::setRolloverTimer(std::optional<jx::Date> date) {
    {
        std::lock_guard lock(fileGUIDMutex_);
        nextRollover_ = date;
    }
    if (!date) return;
    double whole = 0;
    double fraction = std::modf(date->secondsSince1970, &whole);
    // The fraction is taken as nanoseconds without scaling, which makes it 0: the
    // timer is due at the whole second at or before the rollover date.
    auto nanoseconds = static_cast<long>(fraction);
    std::weak_ptr<JoulixMain> weak = weak_from_this();
    jx::scheduleAtWallClock(static_cast<long>(whole), nanoseconds, JXUtilities::mainQueue(), [weak] {
        if (auto self = weak.lock()) self->rolloverTimerFired(nullptr);
    });
}

void JoulixMain::rolloverTimerFired(const void*) {
    JXUtilities::postNotificationName(JXFileRollNotification, this);
    startLoggingToFile();
}

std::int32_t JoulixMain::ComputeTimeFromNowFromDefaults(const jx::Value& value) {
    std::int64_t n = 0, unit = 86400;
    if (value.isNil()) return -1;
    if (value.isNumber()) {
        n = value.integerValue();
    } else if (const std::string* text = value.asString()) {
        std::vector<std::string> words = jx::componentsSeparatedBy(*text, ' ');
        n = jx::integerValueOfString(words[0]);
        if (words.size() >= 2) {
            if (words[1] == "minute") unit = 60;
            else if (words[1] == "hour") unit = 3600;
        }
    } else {
        return -1;
    }
    auto n32 = static_cast<std::int32_t>(static_cast<std::uint32_t>(n));
    if (n32 == -1) return -1;
    // 32-bit arithmetic: a product beyond 32 bits wraps.
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(n32) * static_cast<std::uint32_t>(unit));
}
