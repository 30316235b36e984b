// The locale and time zone the daemon formats its times in.
#include <unicode/calendar.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <memory>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

JXLocaleLogger::JXLocaleLogger() : JXLogger("JXLocaleLogger") {}

void JXLocaleLogger::logSample() {
    // The log's times are local times: a reader needs the zone and its offset now.
    const icu::Locale& locale = icu::Locale::getDefault();
    JXEntry entry("Locale");
    entry.setObject(JXValue::valueWithString(jx::fieldText(locale.getName())), "locale");
    entry.setObject(JXValue::valueWithString(jx::fieldText(locale.getLanguage())), "language");
    if (*locale.getCountry()) entry.setObject(JXValue::valueWithString(jx::fieldText(locale.getCountry())), "country");

    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
    if (zone) {
        icu::UnicodeString id;
        zone->getID(id);
        std::string text;
        id.toUTF8String(text);
        entry.setObject(JXValue::valueWithString(jx::fieldText(text)), "time_zone");
        UErrorCode status = U_ZERO_ERROR;
        int32_t raw = 0, dst = 0;
        zone->getOffset(icu::Calendar::getNow(), false, raw, dst, status);
        if (U_SUCCESS(status)) {
            entry.setObject(JXValue::valueWithLong((raw + dst) / 1000), "gmt_offset");
            entry.setObject(JXValue::valueWithBool(dst != 0), "dst");
        }
    }
    JXLogWriter::sharedWriter().logEntry(entry);
}

JX_REGISTER_LOGGER(JXLocaleLogger)
