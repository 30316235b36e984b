// joulixctl bbpower [DIR] [--notify]: one baseband power post-processing run on
// DIR, as the daemon makes after a roll, and where its results went.
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "JoulixMain/JoulixMain.h"
#include "baseband/JXBasebandPostProcessing.h"
#include "platform/Metrics.h"
#include "platform/OptionalLinking.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"

namespace {

std::set<std::string> filesIn(const std::string& dir) {
    std::set<std::string> names;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(dir, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec))
        if (it->path().filename().string().front() != '.') names.insert(it->path().filename().string());
    return names;
}

long long sizeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

}  // namespace

int bbpowerCommand(const std::vector<std::string>& args) {
    std::optional<std::string> dir;
    bool notify = false;
    for (const std::string& a : args) {
        if (a == "--notify")
            notify = true;
        else if (a.rfind("--", 0) == 0 || dir) {
            std::fprintf(stderr, "joulixctl: bbpower takes one directory and --notify, not '%s'\n", a.c_str());
            return 2;
        } else
            dir = a;
    }
    // The run's directory is joined to file names as it is: it must end in "/".
    std::string directory = dir ? std::filesystem::absolute(*dir).string() : jx::rootPath(kJXCrashReportDirectory);
    if (directory.empty() || directory.back() != '/') directory += '/';

    // The messages of the run go to standard error as well as to the system log.
    jx::setLogToStderr(true);
    jx::openTreeDirectory(jx::rootPath("/var/tmp"), true);

    const std::string spool = TLMServerConnection::spoolPath();
    const std::string reports = jx::rootPath("/var/mobile/Library/Logs/Larkin/");
    const long long spoolBefore = sizeOf(spool);
    const std::set<std::string> reportsBefore = filesIn(reports);

    JXBasebandPostProcessing processor;
    processor.postProcessJoulixsAtPath(directory, notify);
    const auto& run = processor.lastRun();

    std::printf("power log: %s\n",
                run.joulixOfInterest.empty() ? JXBasebandPostProcessing::kNotFound : run.joulixOfInterest.c_str());
    if (sizeOf(spool) > spoolBefore)
        std::printf("metric: appended to %s\n", spool.c_str());
    else
        std::printf("metric: none\n");
    bool reported = false;
    for (const std::string& name : filesIn(reports)) {
        if (reportsBefore.count(name)) continue;
        std::printf("report: %s%s\n", reports.c_str(), name.c_str());
        reported = true;
    }
    if (!reported) {
        const bool composer = ::access(jx::frameworkPath("LarkinCompose").c_str(), F_OK) == 0;
        std::printf("report: none%s\n",
                    composer ? "" : (" (no composer at " + jx::frameworkPath("LarkinCompose") + ")").c_str());
    }
    switch (run.outcome) {
        case JXBasebandPostProcessing::Outcome::Completed:
            std::printf("verdict: Larkin priority %d, threshold point %ld\n", run.priority, run.thresholdPoint);
            return 0;
        case JXBasebandPostProcessing::Outcome::Disabled:
            std::printf("ended: metric and report disabled\n");
            break;
        case JXBasebandPostProcessing::Outcome::NotFound:
            std::printf("ended: no power log of interest\n");
            break;
        case JXBasebandPostProcessing::Outcome::TooLarge:
            std::printf("ended: extract over 15 MB, kept at %s\n",
                        JXBasebandPostProcessing::temporaryJoulixPath().c_str());
            break;
        default:
            std::printf("ended: exception\n");
            break;
    }
    return 1;
}
