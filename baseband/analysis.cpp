// The run, the sweep over the events and the verdict.
#include <sys/stat.h>
#include <unicode/regex.h>
#include <unicode/utext.h>

#include <cmath>
#include <stdexcept>

#include "baseband/BasebandText.h"
#include "baseband/JXBasebandPostProcessing.h"
#include "platform/SystemLog.h"

using jx::baseband::numericValue;

namespace {

constexpr double kBusyCeiling = 70.0;       // an APPS or peripherals value above it discards the interval
constexpr double kIntervalSeconds = 600.0;  // accumulated sample duration that closes an interval
constexpr double kPercentile = 99.0;
constexpr double kPercentScale = 100.0;
constexpr int kFullUtilityLimit = 2;  // intervals in the 100 % bin from which an issue is reported

const char* const kSamplePattern =
    R"(ARMUtility\=(\d+(?:.\d+)*?);ARMUtilityDuration\=(\d+(?:.\d+)*?);APPSValue\=(\d+(?:.\d+)*?);PERIPHERALSValue\=(\d+(?:.\d+)*?);)";

// The events that set a device-state flag, and the value they set.
struct StateEvent {
    const char* text;
    const char* flag;
    const char* value;
};
const StateEvent kStateEvents[] = {
    {"DisplayStatus=Active", "IS_DISPLAY_ON", "YES"},
    {"DisplayStatus=Inactive", "IS_DISPLAY_ON", "NO"},
    {"VoiceCallStatus=Active", "IS_VOICE_CALL_UP", "YES"},
    {"VoiceCallStatus=Inactive", "IS_VOICE_CALL_UP", "NO"},
    {"audioAssertionHeld=YES", "IS_AUDIO_ASSERTION_HELD", "YES"},
    {"audioAssertionHeld=NO", "IS_AUDIO_ASSERTION_HELD", "NO"},
    {"PersonalWifiHotspot=YES", "IS_PERSONAL_WIFI_HOTSPOT_ASSERTION_HELD", "YES"},
    {"PersonalWifiHotspot=NO", "IS_PERSONAL_WIFI_HOTSPOT_ASSERTION_HELD", "NO"},
};

// One ARM utility sample: utility, duration, APPS and peripherals values.
struct Sample {
    double u = 0, d = 0, a = 0, p = 0;
};

class SampleReader {
public:
    SampleReader() {
        UErrorCode status = U_ZERO_ERROR;
        UParseError where;
        pattern_.reset(icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(kSamplePattern), UREGEX_CASE_INSENSITIVE,
                                                  where, status));
        if (U_FAILURE(status)) throw std::runtime_error("sample pattern");
        matcher_.reset(pattern_->matcher(status));
        if (U_SUCCESS(status)) matcher_->setTimeLimit(jx::baseband::kMatchTickLimit, status);
        if (U_FAILURE(status)) throw std::runtime_error("sample matcher");
    }
    ~SampleReader() {
        matcher_.reset();
        utext_close(&text_);
    }
    SampleReader(const SampleReader&) = delete;
    SampleReader& operator=(const SampleReader&) = delete;

    // A sample text that does not match (a negative utility, an absent value)
    // counts as all zeros.
    Sample read(const std::string& event) {
        Sample s;
        try {
            UErrorCode status = U_ZERO_ERROR;
            utext_openUTF8(&text_, event.data(), static_cast<int64_t>(event.size()), &status);
            matcher_->reset(&text_);
            if (U_FAILURE(status) || !matcher_->find(status) || U_FAILURE(status)) return s;
            double values[4];
            for (int i = 1; i <= 4; ++i) {
                int64_t start = matcher_->start64(i, status), end = matcher_->end64(i, status);
                if (U_FAILURE(status) || start < 0) return Sample{};
                values[i - 1] = numericValue(std::string_view(event).substr(static_cast<std::size_t>(start),
                                                                            static_cast<std::size_t>(end - start)));
            }
            s = {values[0], values[1], values[2], values[3]};
        } catch (...) {
            return Sample{};
        }
        return s;
    }

private:
    std::unique_ptr<icu::RegexPattern> pattern_;
    std::unique_ptr<icu::RegexMatcher> matcher_;
    UText text_ = UTEXT_INITIALIZER;
};

}  // namespace

void JXBasebandPostProcessing::postProcessJoulixsAtPath(const std::string& path, bool postNotification) {
    try {
        runOrThrow(path, postNotification);
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- Exception");
        summary.outcome = Outcome::Exception;
    }
    // Nothing of the run is kept but the temporary file after an early end.
    dictSearchStrings.clear();
    dictMatchedResultsFromSearchStrings.clear();
    forgetCompiledPatterns();
}

void JXBasebandPostProcessing::runOrThrow(const std::string& path, bool postNotification) {
    summary = RunSummary{};
    jx::systemLog(jx::kLogNotice, "BBPowerTool -- Started");
    if (!TLMIsMetricEnabled(kTLMBasebandPowerMetricId) && !postNotification) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- TLM and Notification are Disabled: Exit");
        summary.outcome = Outcome::Disabled;
        return;
    }
    const std::string joulix = joulixOfInterestOrThrow(path);
    if (joulix == kNotFound) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- No Power Log of Interest Found: Exit");
        summary.outcome = Outcome::NotFound;
        return;
    }
    summary.joulixOfInterest = joulix;
    PDF pdf(kBins, 0);
    dictSearchStrings.clear();
    addSearchStringsToDictionary(dictSearchStrings);
    // Compiled once, for this run's table.
    forgetCompiledPatterns();
    compiledPatternsFor(dictSearchStrings);
    compiledRunTable = &dictSearchStrings;
    jx::systemLogf(jx::kLogNotice, "BBPowerTool -- Power Log of Interest: %s", joulix.c_str());

    getTrimemdJoulixFile(joulix);
    const std::string temporary = temporaryJoulixPath();
    struct stat st {};
    const unsigned long long size =
        ::stat(temporary.c_str(), &st) == 0 ? static_cast<unsigned long long>(st.st_size) : 0;
    jx::systemLogf(jx::kLogNotice, "BBPowerTool -- Trimmed Power Log File Size(bytes): %llu", size);
    if (size > kMaximumExtractBytes) {
        // The extract stays where it is; the next run's extraction removes it first.
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- Extracted File is >15MB: Exit");
        summary.outcome = Outcome::TooLarge;
        return;
    }

    totalNumberOfARMUtilityValues_Filtered = 0;
    for (const std::string& file : {temporary}) {
        jx::systemLogf(jx::kLogNotice, "BBPowerTool -- Processing File: %s", file.c_str());
        dictMatchedResultsFromSearchStrings.clear();
        pendingARMUtility.reset();
        pendingDuration.reset();
        pendingAPPSValue.reset();
        initWithFilePath(file);
        while (std::optional<std::string> line = readLine())
            dispatchMatchedResult(getMatchedResultsFor(*line, dictSearchStrings), dictMatchedResultsFromSearchStrings);
        releaseFileObjects();
        printSortedDictionary(dictMatchedResultsFromSearchStrings);
        calculateARMUtilityOrThrow(&dictMatchedResultsFromSearchStrings, pdf);
        resultForARMValuesOrThrow(pdf, postNotification, joulix);
    }

    dictSearchStrings.clear();
    dictMatchedResultsFromSearchStrings.clear();
    removeTemporaryJoulix();
    jx::systemLog(jx::kLogNotice, "BBPowerTool -- Completed");
    summary.outcome = Outcome::Completed;
}

void JXBasebandPostProcessing::calculateARMUtilityFor(const Dictionary* events, PDF& ARMUtilityPDF) {
    try {
        calculateARMUtilityOrThrow(events, ARMUtilityPDF);
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- calculateARMUtilityFor: Exception");
    }
}

void JXBasebandPostProcessing::calculateARMUtilityOrThrow(const Dictionary* events, PDF& ARMUtilityPDF) {
    {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- Calcualte ARM Utility Values");
        Dictionary flags = {{"IS_DISPLAY_ON", "DONT_KNOW"},
                            {"IS_VOICE_CALL_UP", "DONT_KNOW"},
                            {"IS_AUDIO_ASSERTION_HELD", "DONT_KNOW"},
                            {"IS_PERSONAL_WIFI_HOTSPOT_ASSERTION_HELD", "DONT_KNOW"}};
        if (!events) return;
        SampleReader samples;
        double weighted = 0.0, duration = 0.0;
        bool skip = false;
        // The keys are "%.04f" times; the map walks them in plain string order.
        for (const auto& [time, text] : *events) {
            const bool using_ = isUserUsingThePhone(flags);
            if (using_) {
                weighted = 0.0;
                duration = 0.0;
                skip = true;
            }
            const StateEvent* state = nullptr;
            for (const StateEvent& s : kStateEvents)
                if (text == s.text) state = &s;
            if (state) {
                flags[state->flag] = state->value;
                continue;
            }
            if (!text.starts_with("ARMUtility")) continue;
            const Sample s = samples.read(text);
            if (using_) continue;
            if (skip) {
                // The first sample after the device was in use is never counted.
                skip = false;
                continue;
            }
            const bool high = s.a > kBusyCeiling || s.p > kBusyCeiling;
            if (!high && s.u > 0.0) {
                duration += s.d;
                weighted += s.d * s.u;
            }
            if (high) {
                weighted = 0.0;
                duration = 0.0;
            }
            if (duration >= kIntervalSeconds) {
                const double mean = weighted / duration;
                weighted = 0.0;
                duration = 0.0;
                if (mean > 0.0) {
                    // Bin b holds the means in (b - 1, b]. A mean above 100 cannot come
                    // from real lines and has no bin: it is dropped.
                    const double bin = std::ceil(mean);
                    if (bin < static_cast<double>(ARMUtilityPDF.size())) {
                        ARMUtilityPDF[static_cast<std::size_t>(bin)] += 1;
                        totalNumberOfARMUtilityValues_Filtered += 1;
                    }
                }
            }
        }
    }
}

namespace {

// A dictionary from a value-key list that ends at its first empty value. The
// priority and the point are bare integers in that list, so a priority of 0 ends
// it at once and the record is empty: kept so, the metric's consumers expect it.
jx::Value dictionaryWithValuesAndKeys(const std::vector<std::pair<jx::Value, const char*>>& list) {
    jx::Dictionary d;
    for (const auto& [value, key] : list) {
        if (value.isNil() || (value.asInteger() && *value.asInteger() == 0)) break;
        d[key] = value;
    }
    return jx::Value(std::move(d));
}

}  // namespace

void JXBasebandPostProcessing::getResultForARMValues(const PDF& pdf, bool postNotification,
                                                     const std::string& forJoulix) {
    try {
        resultForARMValuesOrThrow(pdf, postNotification, forJoulix);
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- getResultForARMValues: Exception");
    }
}

void JXBasebandPostProcessing::resultForARMValuesOrThrow(const PDF& pdf, bool postNotification,
                                                         const std::string& forJoulix) {
    {
        const int total = totalNumberOfARMUtilityValues_Filtered;
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- Filtered PDF Values of ARM Utility");
        jx::systemLogf(jx::kLogNotice, "BBPowerTool -- Total ARMUtility Values %d", total);
        auto bin = [&](int i) {
            return static_cast<std::size_t>(i) < pdf.size() ? pdf[static_cast<std::size_t>(i)] : 0;
        };
        long long cumulative = 0;
        long point = -1;
        bool found = false;
        for (int i = 0; i < kBins; ++i) {
            jx::systemLogf(jx::kLogNotice, "Filtered %ld >> %d", static_cast<long>(i), bin(i));
            cumulative += bin(i);
            if (total >= 1 && static_cast<double>(cumulative) / total * kPercentScale >= kPercentile && !found) {
                point = i;
                found = true;
            }
        }
        const bool noIssue = bin(100) < kFullUtilityLimit;
        const int priority = noIssue ? 0 : 1;

        jx::Array pdfValues;
        for (int i = 0; i < kBins; ++i) pdfValues.emplace_back(bin(i));
        TLMSubmitBasebandPowerMetric(dictionaryWithValuesAndKeys({{jx::Value(priority), "Priority"},
                                                                  {jx::Value(point), "CDFPercentileThresholdPoint"},
                                                                  {jx::Value(pdfValues), "ARMpdfValues"}}));
        // The no-issue report goes out whether or not a report was asked for.
        if (noIssue)
            sendNotification(
                jx::formatString("BB_Power_Tool: No Issue, Larkin Priority: %d. Log: %s", priority, forJoulix.c_str()));
        else if (postNotification)
            sendNotification(
                jx::formatString("BB_Power_Tool: Hit a potential power issue. Attach Log: %s", forJoulix.c_str()));
        jx::systemLogf(jx::kLogNotice, "BBPowerTool -- Larkin Priority: %d", priority);
        jx::systemLogf(jx::kLogNotice, "BBPowerTool -- armUtilityCDFThresholdPoint: %ld", point);
        summary.priority = priority;
        summary.thresholdPoint = point;
    }
}
