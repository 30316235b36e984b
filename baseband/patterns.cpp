// Line patterns and device state: each kept line of the extract is matched against
// the pattern table, its time rebuilt from the line, and what it says stored as an
// event under that time.
#include <unicode/regex.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/utext.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <unordered_map>

#include "baseband/BasebandText.h"
#include "baseband/JXBasebandPostProcessing.h"
#include "platform/SystemLog.h"

using jx::baseband::equalsIgnoringCase;
using jx::baseband::formatFloat;
using jx::baseband::numericValue;

namespace {

// The pattern table, stored and used exactly as written: the unescaped dots and
// lazy repetitions of the number groups are part of what the patterns accept.
const struct {
    const char* name;
    const char* pattern;
} kSearchStrings[] = {
    {"DisplayStatus",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Display\]\s*.*active\=(.*);\s*brightness)"},
    {"BatteryCharging",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Battery\].*charging_state\=(.*);\s*charging_current)"},
    {"ARMUtilityDuration",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB HW Log\]\s*.*Duration\=(\d+(?:.\d+)*?);)"},
    {"ARMUtilityValues",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB HW RPM\]\s*XO_Shutdown\=\[(\d+(?:.\d+)*?)%\,(\d+(?:.\d+)*?)\];\s*VDD_Min\=\[(\d+(?:.\d+)*?)%,(\d+(?:.\d+)*?)\])"},
    // Keep the lone backslash at the end: this row is stored as written, never
    // compiles, and so never matches.
    {"ARMUtilityValuesForTarn5",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB HW Processor\]\s*system_State\=\[(\d+(?:.\d+)*?)\)"},
    {"APPSValue",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB HW APPS\]\s*.*CXO_Shutdown\=\[(\d+(?:.\d+)*?)%\,(\d+(?:.\d+)*?)\];)"},
    {"Peripherals",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB HW Peripherals\]\s*USB\=\[\d+(?:.\d+)*?\,\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];\s*SPI\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];\s*UART\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];\s*GPS\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];\s*GPS_DPO\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];)"},
    {"PeripheralsForTarn5",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB HW Peripherals\]\s*GPS\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];\s*USB\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];\s*SPI\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];\s*UART\=\[\d+(?:.\d+)*?\,(\d+(?:.\d+)*?)%];)"},
    {"MPSSValue",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB HW MPSS\]\s*CXO_Shutdown\=\[(\d+(?:.\d+)*?)%\,(\d+(?:.\d+)*?)\];)"},
    {"TelephonyStatus",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Telephony\]\s*.*call_status\=(.*);\s*airplane_mode)"},
    {"SleepStatusTrue", R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Sleep\]\s*event\=did_sleep;)"},
    {"WakeReason", R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Wake\]\s*reason\=(.*);)"},
    {"BBEvent",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[BB Event\]\s*EventCode\=EVENT_WCDMA_RRC_STATE;\s*prevState\=(.*);\s*currState\=(.*);\s*rate)"},
    {"AudioAssertionCreated",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Assertion\]\s*.*state\=created;\s*process\=soundhubd;\s*.*name\=com.brindle.audio.VAD Aggregate Device UID)"},
    {"AudioAssertionReleased",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Assertion\]\s*.*state\=released;\s*process\=soundhubd;\s*.*name\=com.brindle.audio.VAD Aggregate Device UID)"},
    {"WifiAssertionCreated",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Assertion\]\s*.*state\=(created|held);\s*process\=wlanhubd;\s*.*name\=ap1)"},
    {"WifiAssertionReleased",
     R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[Assertion\]\s*.*state\=released;\s*process\=wlanhubd;\s*.*name\=ap1)"},
};

// Every row begins with this timestamp prefix and then its bracketed tag. Nothing
// the prefix can match is a '[', so in any line a row matches, the row's tag is
// the text between the line's first '[' and the next ']'.
constexpr std::string_view kTimestampPrefix = R"(^(\d+)\/(\d+)\/(\d+)\s*(\d+):(\d+):(\d+)(\.\d+)?\s*\[)";

// The literal tag of a row, or nothing when its text does not have the usual form
// (such a row is tried on every line).
std::optional<std::string> literalTag(std::string_view pattern) {
    if (pattern.substr(0, kTimestampPrefix.size()) != kTimestampPrefix) return std::nullopt;
    std::string_view rest = pattern.substr(kTimestampPrefix.size());
    std::size_t end = rest.find(R"(\])");
    if (end == std::string_view::npos || end == 0) return std::nullopt;
    std::string_view tag = rest.substr(0, end);
    for (char c : tag)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ' ' || c == '_'))
            return std::nullopt;
    return jx::baseband::foldCase(tag);
}

// The folded text between the line's first '[' and the next ']', if there is one.
std::optional<std::string> lineTag(std::string_view line) {
    std::size_t open = line.find('[');
    if (open == std::string_view::npos) return std::nullopt;
    std::size_t close = line.find(']', open + 1);
    if (close == std::string_view::npos) return std::nullopt;
    return jx::baseband::foldCase(line.substr(open + 1, close - open - 1));
}

}  // namespace

// The table compiled once, with each tag's rows in the table's order. A line is
// tried against the rows of its tag and the rows without a literal tag, in table
// order: exactly the rows that could match it, so the first that does is the one
// trying every row would find.
struct JXBasebandPostProcessing::CompiledPatterns {
    struct Row {
        std::string name;
        std::unique_ptr<icu::RegexPattern> pattern;  // null: does not compile
        std::unique_ptr<icu::RegexMatcher> matcher;
    };
    Dictionary source;
    std::vector<Row> rows;
    std::vector<std::size_t> everyRow;
    std::vector<std::size_t> untagged;
    std::map<std::string, std::vector<std::size_t>> byTag;  // each list: tagged rows and untagged, in order
    UText text = UTEXT_INITIALIZER;

    explicit CompiledPatterns(const Dictionary& searchStrings) : source(searchStrings) {
        std::map<std::string, std::vector<std::size_t>> tagged;
        for (const auto& [name, pattern] : searchStrings) {
            Row row;
            row.name = name;
            UErrorCode status = U_ZERO_ERROR;
            UParseError where;
            std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(
                icu::UnicodeString::fromUTF8(pattern), UREGEX_CASE_INSENSITIVE, where, status));
            if (U_SUCCESS(status) && compiled) {
                row.matcher.reset(compiled->matcher(status));
                if (U_SUCCESS(status)) row.matcher->setTimeLimit(jx::baseband::kMatchTickLimit, status);
                if (U_SUCCESS(status))
                    row.pattern = std::move(compiled);
                else
                    row.matcher.reset();
            }
            const std::size_t index = rows.size();
            rows.push_back(std::move(row));
            if (!rows.back().matcher) continue;  // never matches: nothing to try
            everyRow.push_back(index);
            if (auto tag = literalTag(pattern))
                tagged[*tag].push_back(index);
            else
                untagged.push_back(index);
        }
        for (auto& [tag, list] : tagged) {
            std::vector<std::size_t> merged;
            std::merge(list.begin(), list.end(), untagged.begin(), untagged.end(), std::back_inserter(merged));
            byTag.emplace(tag, std::move(merged));
        }
    }
    ~CompiledPatterns() {
        rows.clear();  // matchers hold the text; they go first
        utext_close(&text);
    }
    CompiledPatterns(const CompiledPatterns&) = delete;
    CompiledPatterns& operator=(const CompiledPatterns&) = delete;

    // The first row that matches, its matcher positioned on the match.
    const Row* match(const std::string& line, bool dispatchByTag) {
        const std::vector<std::size_t>* candidates = &everyRow;
        if (dispatchByTag) {
            candidates = &untagged;
            if (auto tag = lineTag(line)) {
                auto it = byTag.find(*tag);
                if (it != byTag.end()) candidates = &it->second;
            }
        }
        if (candidates->empty()) return nullptr;
        UErrorCode status = U_ZERO_ERROR;
        utext_openUTF8(&text, line.data(), static_cast<int64_t>(line.size()), &status);
        if (U_FAILURE(status)) throw std::runtime_error("line text");
        for (std::size_t index : *candidates) {
            Row& row = rows[index];
            status = U_ZERO_ERROR;
            row.matcher->reset(&text);
            if (row.matcher->find(status) && U_SUCCESS(status)) return &row;
            if (status == U_REGEX_TIME_OUT && !saidTimeOut) {
                jx::systemLogf(jx::kLogNotice, "BBPowerTool -- %s gave up on a line that needs too much backtracking",
                               row.name.c_str());
                saidTimeOut = true;
            }
        }
        return nullptr;
    }
    bool saidTimeOut = false;
};

void JXBasebandPostProcessing::addSearchStringsToDictionary(Dictionary& dictionary) {
    for (const auto& row : kSearchStrings) dictionary[row.name] = row.pattern;
}

const JXBasebandPostProcessing::CompiledPatterns& JXBasebandPostProcessing::compiledPatternsFor(
    const Dictionary& searchStrings) {
    // The run's own table does not change while the run reads: it is not compared
    // again line by line.
    if (compiled && &searchStrings == compiledRunTable) return *compiled;
    if (!compiled || searchStrings != compiled->source) compiled = std::make_unique<CompiledPatterns>(searchStrings);
    return *compiled;
}

void JXBasebandPostProcessing::forgetCompiledPatterns() {
    compiled.reset();
    compiledRunTable = nullptr;
    collisionNext.clear();
    collisionDictionary = nullptr;
    collisionDictionarySize = 0;
}

JXBasebandPostProcessing::Dictionary JXBasebandPostProcessing::getMatchedResultsFor(const std::string& line,
                                                                                    const Dictionary& searchStrings) {
    Dictionary result;
    try {
        compiledPatternsFor(searchStrings);
        const CompiledPatterns::Row* row = compiled->match(line, _dispatchesByTag);
        if (!row) return result;
        try {
            UErrorCode status = U_ZERO_ERROR;
            const int groups = row->matcher->groupCount();
            for (int i = 1; i <= groups; ++i) {
                int64_t start = row->matcher->start64(i, status);
                int64_t end = row->matcher->end64(i, status);
                // A group that took part in no match has no range (the fraction of a
                // second is optional): the line is not an event.
                if (U_FAILURE(status) || start < 0 || end < start) throw std::out_of_range("group without range");
                result[std::to_string(i)] =
                    line.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start));
            }
            if (groups < 7) throw std::out_of_range("no timestamp groups");
            const std::string dateText = result["3"] + "-" + result["1"] + "-" + result["2"] + " " + result["4"] + ":" +
                                         result["5"] + ":" + result["6"];
            std::optional<jx::Date> date = getFormattedDateTimeWithFormat("yy-MM-dd HH:mm:ss", dateText);
            const std::string& fraction = result["7"];
            result["dateTime"] = (date ? jx::describeDateUTC(*date) : std::string("(null)")) + " (" + fraction + ")";
            result["epochDateTime"] = getEpochTimeForDate(date, fraction);
            result["matchedFor"] = row->name;
            for (int i = 1; i <= 7; ++i) result.erase(std::to_string(i));
        } catch (...) {
            jx::systemLog(jx::kLogNotice, "Exception: getMatchedResults> if-match condition");
        }
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- getMatchedResultsFor: Exception");
    }
    return result;
}

// One formatter per format, kept for the object's life: making one costs far more
// than a parse. Lines of one second share their date text, so the last answer is kept too.
struct JXBasebandPostProcessing::DateParser {
    std::string format;
    std::unique_ptr<icu::SimpleDateFormat> formatter;
    std::string lastText;
    std::optional<jx::Date> lastDate;
    bool haveLast = false;
};

std::optional<jx::Date> JXBasebandPostProcessing::getFormattedDateTimeWithFormat(const std::string& format,
                                                                                 const std::string& forString) {
    try {
        return parseDate(format, forString);
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- getFormattedDateTimeWithFormat: Exception");
        return std::nullopt;
    }
}

std::optional<jx::Date> JXBasebandPostProcessing::parseDate(const std::string& format, const std::string& text) {
    if (!dateParser || dateParser->format != format) {
        auto parser = std::make_unique<DateParser>();
        UErrorCode status = U_ZERO_ERROR;
        // The device's default locale and time zone, as a formatter that is given none.
        parser->formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(format),
                                                                    icu::Locale::getDefault(), status);
        if (U_FAILURE(status)) throw std::runtime_error("date format");
        parser->formatter->setLenient(false);
        parser->format = format;
        dateParser = std::move(parser);
    }
    if (dateParser->haveLast && dateParser->lastText == text) return dateParser->lastDate;
    icu::ParsePosition position(0);
    icu::UnicodeString input = icu::UnicodeString::fromUTF8(text);
    UDate parsed = dateParser->formatter->parse(input, position);
    std::optional<jx::Date> date;
    if (position.getErrorIndex() < 0 && position.getIndex() > 0) date = jx::Date{parsed / 1000.0};
    dateParser->lastText = text;
    dateParser->lastDate = date;
    dateParser->haveLast = true;
    return date;
}

std::string JXBasebandPostProcessing::getEpochTimeForDate(std::optional<jx::Date> date,
                                                          const std::string& withMilliseconds) {
    // No date counts as 0 s: the event's time is the fraction alone.
    const double seconds = date ? date->secondsSince1970 : 0.0;
    return formatFloat(seconds + numericValue(withMilliseconds));
}

void JXBasebandPostProcessing::addKey(const std::string& key, const std::string& value, Dictionary& toDictionary) {
    const double time = numericValue(key);
    // Keys are only ever added, so a slot found taken stays taken: the search for
    // a time seen before goes on from where it stopped.
    if (collisionDictionary != &toDictionary || collisionDictionarySize != toDictionary.size()) {
        collisionNext.clear();
        collisionDictionary = &toDictionary;
    }
    // Only times that have collided are remembered: most times are seen once.
    auto known = collisionNext.find(time);
    std::uint64_t step = known == collisionNext.end() ? 0 : known->second;
    for (;; ++step) {
        // Far from 0 a tenth of a millisecond no longer changes the number; past
        // this many tries the event is dropped rather than searched for without end.
        if (step > kMaximumCollisionSteps) {
            jx::systemLogf(jx::kLogNotice, "BBPowerTool -- addKey: no free key near %s", key.c_str());
            collisionNext[time] = step;
            return;
        }
        std::string candidate = jx::formatString("%.04f", time + static_cast<double>(step) * 0.0001);
        auto [it, inserted] = toDictionary.try_emplace(std::move(candidate), value);
        if (inserted) break;
    }
    if (step > 0 || known != collisionNext.end()) collisionNext[time] = step + 1;
    collisionDictionarySize = toDictionary.size();
}

bool JXBasebandPostProcessing::isUserUsingThePhone(const Dictionary& flags) {
    for (const char* flag :
         {"IS_AUDIO_ASSERTION_HELD", "IS_DISPLAY_ON", "IS_PERSONAL_WIFI_HOTSPOT_ASSERTION_HELD", "IS_VOICE_CALL_UP"}) {
        auto it = flags.find(flag);
        if (it != flags.end() && it->second == "YES") return true;
    }
    return false;
}

void JXBasebandPostProcessing::printSortedDictionary(const Dictionary&) {}
void JXBasebandPostProcessing::printDictionary(const Dictionary&) {}

void JXBasebandPostProcessing::dispatchMatchedResult(const Dictionary& result, Dictionary& events) {
    auto matched = result.find("matchedFor");
    if (matched == result.end()) return;
    const std::string& name = matched->second;
    auto group = [&](int i) -> std::string {
        auto it = result.find(std::to_string(i));
        return it == result.end() ? std::string("(null)") : it->second;
    };
    auto number = [&](int i) { return numericValue(group(i)); };
    auto time = result.find("epochDateTime");
    const std::string t = time == result.end() ? std::string("(null)") : time->second;
    auto pending = [](const std::optional<std::string>& v) { return v ? *v : std::string("(null)"); };

    if (name == "BatteryCharging") {
        if (equalsIgnoringCase(group(8), "inactive"))
            addKey(t, "BATTERY_CHARGING_INACTIVE", events);
        else if (equalsIgnoringCase(group(8), "active"))
            addKey(t, "BATTERY_CHARGING_ACTIVE", events);
    } else if (name == "ARMUtilityDuration") {
        pendingDuration = formatFloat(std::max(number(8), 0.0));
    } else if (name == "ARMUtilityValues") {
        pendingARMUtility = formatFloat(100.0 - number(10) - number(8));
    } else if (name == "APPSValue") {
        pendingAPPSValue = formatFloat(100.0 - number(8));
    } else if (name == "Peripherals") {
        double largest = number(8);
        for (int i = 9; i <= 12; ++i)
            if (number(i) > largest) largest = number(i);
        addKey(t,
               "ARMUtility=" + pending(pendingARMUtility) + ";ARMUtilityDuration=" + pending(pendingDuration) +
                   ";APPSValue=" + pending(pendingAPPSValue) + ";PERIPHERALSValue=" + formatFloat(largest) + ";",
               events);
        pendingARMUtility.reset();
        pendingDuration.reset();
        pendingAPPSValue.reset();
    } else if (name == "MPSSValue") {
        // Cut to an unsigned whole number; what cannot be one saturates.
        const double mpss = 100.0 - number(8);
        unsigned long whole = 0;
        if (mpss >= static_cast<double>(std::numeric_limits<unsigned long>::max()))
            whole = ULONG_MAX;
        else if (mpss > 0)
            whole = static_cast<unsigned long>(mpss);
        addKey(t, jx::formatString("MPSSUtility=%lu;MPSSUtilityDuration=%s;", whole, pending(pendingDuration).c_str()),
               events);
    } else if (name == "DisplayStatus") {
        if (equalsIgnoringCase(group(8), "yes"))
            addKey(t, "DisplayStatus=Active", events);
        else if (equalsIgnoringCase(group(8), "no"))
            addKey(t, "DisplayStatus=Inactive", events);
    } else if (name == "TelephonyStatus") {
        const std::string status = group(8);
        if (equalsIgnoringCase(status, "Inactive"))
            addKey(t, "VoiceCallStatus=Inactive", events);
        else if (equalsIgnoringCase(status, "Active") || equalsIgnoringCase(status, "Sending") ||
                 equalsIgnoringCase(status, "Ringing"))
            addKey(t, "VoiceCallStatus=Active", events);
    } else if (name == "SleepStatusTrue") {
        addKey(t, "APSleepStatus=sleep", events);
    } else if (name == "WakeReason") {
        addKey(t, "APSleepStatus=awake;reason=" + group(8), events);
    } else if (name == "BBEvent") {
        addKey(t, std::string("WcdmaConnectedState=") + (equalsIgnoringCase(group(9), "Disconnected") ? "NO" : "YES"),
               events);
    } else if (name == "AudioAssertionCreated") {
        addKey(t, "audioAssertionHeld=YES", events);
    } else if (name == "AudioAssertionReleased") {
        addKey(t, "audioAssertionHeld=NO", events);
    } else if (name == "WifiAssertionCreated") {
        addKey(t, "PersonalWifiHotspot=YES", events);
    } else if (name == "WifiAssertionReleased") {
        addKey(t, "PersonalWifiHotspot=NO", events);
    }
    // "ARMUtilityValuesForTarn5", "PeripheralsForTarn5": nothing.
}

// Out of line: the compiled patterns and the date parser are complete only here.
JXBasebandPostProcessing::JXBasebandPostProcessing() = default;
JXBasebandPostProcessing::~JXBasebandPostProcessing() = default;
