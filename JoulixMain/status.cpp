// The daemon's state as `joulixctl status` shows it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogger.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"

namespace {

// ISO 8601 in UTC, to the millisecond: what machines read without knowing the zone.
nlohmann::json isoTime(std::optional<jx::Date> date) {
    if (!date || date->secondsSince1970 <= 0) return nullptr;
    const double seconds = date->secondsSince1970;
    std::time_t whole = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&whole, &tm);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    char out[48];
    std::snprintf(out, sizeof out, "%s.%03dZ", text, static_cast<int>((seconds - static_cast<double>(whole)) * 1000));
    return out;
}

}  // namespace

std::string JoulixMain::statusJSON() {
    nlohmann::json status;
    std::optional<jx::Date> started, rollover;
    std::set<std::string> notFound;
    jx::Date since{};
    {
        std::lock_guard lock(fileGUIDMutex_);
        started = logStarted_;
        rollover = nextRollover_;
        notFound = loggersNotFound_;
        since = runningSince_;
    }
    status["running_since"] = isoTime(since);
    status["pid"] = ::getpid();
    status["version"] = JOULIX_VERSION;
    status["commit"] = JOULIX_COMMIT;
    status["system_build"] = JXUtilities::buildVersion();
    status["logging_mode"] = currentLoggingModeString();

    const std::string path = jx::rootPath(kJXCurrentLogPath);
    struct stat st {};
    nlohmann::json log;
    log["path"] = path;
    log["size_bytes"] = ::lstat(path.c_str(), &st) == 0 ? nlohmann::json(st.st_size) : nlohmann::json(nullptr);
    std::optional<std::string> guid = fileGUID();
    log["guid"] = guid ? nlohmann::json(*guid) : nlohmann::json(nullptr);
    log["started"] = isoTime(started);
    log["to_file"] = logToFile();
    status["log"] = log;
    status["next_rollover"] = isoTime(rollover);

    // The registry is read on its own queue, where it is kept.
    nlohmann::json loggers = nlohmann::json::array();
    std::vector<std::pair<std::string, double>> loaded;
    JXUtilities::loggerListDispatchQueue().sync([&] {
        if (!_loggerList) return;
        for (const JXValue& v : _loggerList->allValues())
            if (auto logger = std::dynamic_pointer_cast<JXLogger>(v.object()))
                loaded.emplace_back(logger->name(), logger->lastSampleTime());
    });
    for (const auto& [name, last] : loaded)
        loggers.push_back({{"name", name}, {"last_sample", last > 0 ? isoTime(jx::Date{last}) : nlohmann::json(nullptr)}});
    status["loggers"] = loggers;
    status["loggers_not_found"] = notFound;

    std::uint64_t count = 0, bytes = 0;
    jx::FileDescriptor archive = jx::openTreeDirectory(jx::rootPath(kJXArchiveDirectory));
    if (archive.valid())
        jx::forEachFileBelow(archive.get(), [&](int parent, const std::string& name, const std::string&) {
            struct stat a {};
            if (name.ends_with(".gz") &&
                ::fstatat(parent, name.c_str(), &a, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(a.st_mode)) {
                ++count;
                bytes += static_cast<std::uint64_t>(a.st_size);
            }
        });
    status["archives"] = {{"count", count}, {"bytes", bytes}};

    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    status["cpu_seconds"] = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                            (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return status.dump();
}
