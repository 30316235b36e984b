// Fuzzes the line matcher: any line is matched and dispatched without fault, and
// trying only the patterns of the line's bracketed tag gives exactly what trying
// every pattern gives.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/SystemLog.h"
#include "platform/TextEncoding.h"

namespace {

struct Quiet : jx::LogSink {
    void message(int, std::string_view) override {}
};

struct Matchers {
    JXBasebandPostProcessing byTag, everyPattern;
    JXBasebandPostProcessing::Dictionary patterns;
    Matchers() {
        everyPattern.setDispatchesByTag(false);
        byTag.addSearchStringsToDictionary(patterns);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Quiet quiet;
    static Matchers m;
    jx::setLogSink(&quiet);
    std::string line(reinterpret_cast<const char*>(data), size);
    // The reader hands on UTF-8 lines only.
    if (jx::isValidUTF8(line)) {
        for (const std::string& candidate : {line, line + "\n"}) {
            auto a = m.byTag.getMatchedResultsFor(candidate, m.patterns);
            auto b = m.everyPattern.getMatchedResultsFor(candidate, m.patterns);
            if (a != b) {
                std::fprintf(stderr, "dispatch by tag differs from every pattern for: %s\n", candidate.c_str());
                std::abort();
            }
            JXBasebandPostProcessing::Dictionary events;
            m.byTag.dispatchMatchedResult(a, events);
        }
    }
    jx::setLogSink(nullptr);
    return 0;
}
