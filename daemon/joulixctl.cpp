// joulixctl: the control tool. Reads and writes the daemon's settings through the
// same settings layer the daemon uses, and steers a running daemon with
// system-wide notifications.
#include <getopt.h>
#include <sys/stat.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/DaemonService.h"
#include "platform/FileProtection.h"
#include "platform/NotificationCenter.h"
#include "platform/NotificationNames.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "platform/LoggerTimer.h"
#include "platform/Root.h"

int bbpowerCommand(const std::vector<std::string>& args);
int logCommand(const std::vector<std::string>& args);
int exportCommand(const std::vector<std::string>& args);
int reportCommand(const std::vector<std::string>& args);

namespace {

const char* const kUsage =
    "usage: joulixctl [--root DIR] [--domain DOMAIN] COMMAND\n"
    "commands:\n"
    "  status [--json]                     whether the daemon runs, its log, loggers, next roll;\n"
    "                                      status 3 when it does not run\n"
    "  trigger                             make every logger of the daemon log now\n"
    "  exit                                ask the daemon to exit\n"
    "  unlock                              record and announce the device's first unlock\n"
    "  defaults read [KEY]                 print one setting, or every setting of the domain\n"
    "  defaults write KEY [TYPE] VALUE...  set a setting; TYPE is -string (default), -int,\n"
    "                                      -float, -bool (YES/NO, true/false, 1/0), -array or\n"
    "                                      -dict (KEY VALUE pairs: a logger's own settings,\n"
    "                                      e.g. defaults write JXThermalLogger -dict Enabled NO)\n"
    "                                      or -dict-add (KEY VALUE pairs added to a logger's\n"
    "                                      dictionary, keeping its other keys)\n"
    "  defaults delete KEY                 remove a setting\n"
    "  post NAME                           post any system-wide notification\n"
    "  wait NAME [--timeout S]             wait for a system-wide notification; status 1\n"
    "                                      when S seconds pass first (default: no limit)\n"
    "  bbpower [DIR] [--notify]            one baseband power analysis of DIR (default: the\n"
    "                                      crash-report directory); says where its results went\n"
    "  log [--since T] [--until T] [--tag TAG]... [-f] [-o text|json|csv]\n"
    "                                      the logs (current, rolled, archived) in time order;\n"
    "                                      T is local 'YYYY-MM-DD HH:MM[:SS]', ISO 8601 with Z\n"
    "                                      or an offset, or -2h, -30m, -1d; -f follows the\n"
    "                                      current log across rolls; json: one object a line\n"
    "                                      (UTC time, tag, fields); csv: time,tag,field,value,\n"
    "                                      guessed, one row per field\n"
    "  export --trace FILE [--since T] [--until T]\n"
    "                                      the logs as a trace-event JSON file (- for standard\n"
    "                                      output) for trace viewers: counters, screen-on,\n"
    "                                      suspend and charging slices, wakes\n"
    "  report [--since T] [--until T] [-o FILE.html|-] [--json] [--wake-loop S]\n"
    "                                      where the battery went over the logs: drain by\n"
    "                                      screen, suspend and charging, per day, wakes by\n"
    "                                      reason, wake loops (wakes under S s apart, 60), who\n"
    "                                      kept it awake; a summary, JSON, or one self-contained\n"
    "                                      HTML page with timelines (-o -: to standard output)\n"
    "options:\n"
    "  --root DIR        take every fixed path under DIR (default: $JOULIX_ROOT, else /)\n"
    "  --domain DOMAIN   the settings domain (a reverse-DNS name; default com.brindle.joulix)\n"
    "  -h, --help        this text\n"
    "  --version         the version and the commit it was built from\n"
    "defaults write warns on a key the daemon does not know and on a value it will read\n"
    "otherwise than written. Requests and the status query go over the system bus\n"
    "(DBUS_SYSTEM_BUS_ADDRESS is honoured). See joulixctl(8).\n";

// A usage error says what was wrong in one line, not the whole usage.
int usageError(const std::string& why) {
    std::fprintf(stderr, "joulixctl: %s; see joulixctl --help\n", why.c_str());
    return 2;
}

std::optional<jx::Value> parseInteger(const std::string& text) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    long long n = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || std::isspace(static_cast<unsigned char>(text[0]))) return std::nullopt;
    return jx::Value(n);
}

std::optional<jx::Value> parseReal(const std::string& text) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    double d = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(d) || std::isspace(static_cast<unsigned char>(text[0])))
        return std::nullopt;
    return jx::Value(d);
}

std::optional<jx::Value> parseBool(const std::string& text) {
    for (const char* yes : {"YES", "yes", "TRUE", "true", "1"})
        if (text == yes) return jx::Value(true);
    for (const char* no : {"NO", "no", "FALSE", "false", "0"})
        if (text == no) return jx::Value(false);
    return std::nullopt;
}

// A reverse-DNS name: two or more dot-separated labels of letters, digits, '-' and
// '_'. Anything else could name a file outside the preferences directory.
bool validDomain(const std::string& domain) {
    if (domain.empty() || domain.size() > 255) return false;
    std::size_t labels = 0;
    for (const std::string& label : jx::componentsSeparatedBy(domain, '.')) {
        if (label.empty()) return false;
        for (char c : label)
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') return false;
        ++labels;
    }
    return labels >= 2;
}

// A write into a file that does not read would replace somebody's settings: refuse,
// and say how to get out of it.
bool refuseUnreadable(const std::string& domain) {
    std::optional<std::string> why = jx::PreferencesStore::shared().unreadableReason(domain, kJXDefaultsUser);
    if (!why) return false;
    const std::string path = jx::preferencesPath(domain, kJXDefaultsUser);
    std::fprintf(stderr,
                 "joulixctl: %s cannot be read as settings (%s): nothing was written. Repair it, or move it aside "
                 "to start afresh: mv '%s' '%s.corrupt'\n",
                 path.c_str(), why->c_str(), path.c_str(), path.c_str());
    return true;
}

// The names a per-logger dictionary may be kept under: every logger the daemon can set up.
bool knownLoggerName(const std::string& key) {
    for (const char* name : kJXStaticLoggerList)
        if (key == name) return true;
    for (const char* name : kJXCoreLoggerList)
        if (key == name) return true;
    struct stat st {};
    return ::stat((jx::rootPath(kJXPluginDirectory) + key + ".bundle").c_str(), &st) == 0;
}

bool catalogueKey(const std::string& key) {
    for (unsigned i = 0; i < kJXDefaultsKeyCatalogueCount; ++i)
        if (key == kJXDefaultsKeyCatalogue[i].key) return true;
    return key == JXBasebandPostProcessingKey || key == JXBasebandPostProcessingNotifyKey;
}

bool booleanSpelling(const std::string& text) {
    for (const char* s : {"YES", "yes", "NO", "no", "TRUE", "true", "FALSE", "false", "1", "0"})
        if (text == s) return true;
    return false;
}

// What the daemon will make of a written value other than the writer may think, or nothing.
std::optional<std::string> writeWarning(const std::string& key, const jx::Value& value) {
    if (!catalogueKey(key) && !knownLoggerName(key))
        return "'" + key + "' is neither a setting nor a logger the daemon knows: it will not be read";
    if (key == JXRotateJoulixKey) return JoulixMain::rotationSettingProblem(value);
    if (key == JXLoggingMode) {
        // Said in the daemon's own reading of the value.
        const std::string reads = std::to_string(JXDefaultsLoggingModeFromValue(value));
        if (const std::string* text = value.asString(); text && std::to_string(value.integerValue()) != *text)
            return "'" + *text + "' is no number: the daemon reads it as " + reads + " (use -int)";
        if (value.integerValue() < INT16_MIN || value.integerValue() > INT16_MAX)
            return "the mode is a 16-bit number: the daemon reads " + reads;
    }
    static const char* const booleans[] = {JXStartDelay, JXRotateJoulixDebug, JXRunLoopDebug,
                                           JXBasebandPostProcessingKey, JXBasebandPostProcessingNotifyKey,
                                           JXControlRunDependant, JXDeviceNameInFileName, JXLinkFaultkeeper,
                                           JXFaultkeeperPlistWithContent};
    for (const char* b : booleans)
        if (key == b)
            if (const std::string* text = value.asString(); text && !booleanSpelling(*text))
                return "'" + *text + "' is no boolean: the daemon reads it as " + (value.boolValue() ? "YES" : "NO") +
                       " (use -bool YES or NO)";
    if (const jx::Dictionary* settings = value.asDictionary(); settings && knownLoggerName(key))
        if (auto it = settings->find("SamplePeriod"); it != settings->end())
            if (auto problem = jx::LoggerTimer::readSamplePeriod(it->second, 60).problem) return "SamplePeriod: " + *problem;
    if (key == JXJoulixArchiveDays && JoulixMain::ComputeTimeFromNowFromDefaults(value) == 0)
        return "it reads as 0 seconds: every archive will be deleted at the next roll (use a number of days, or "
               "\"N day\", \"N hour\", \"N minute\")";
    return std::nullopt;
}

// The settings of a domain as the daemon sees them: the store first, then the managed file.
jx::Dictionary effectiveDomain(const std::string& domain) {
    jx::Dictionary merged;
    merged = jx::managedPreferences(domain);
    jx::PreferencesStore::shared().synchronize(domain, kJXDefaultsUser);
    for (auto& [k, v] : jx::PreferencesStore::shared().copyDomain(domain, kJXDefaultsUser)) merged[k] = v;
    return merged;
}

int defaultsRead(const std::string& domain, const std::vector<std::string>& args) {
    if (args.size() > 1) return usageError("defaults read takes at most one key");
    if (auto why = jx::PreferencesStore::shared().unreadableReason(domain, kJXDefaultsUser))
        std::fprintf(stderr, "joulixctl: warning: %s cannot be read as settings (%s): shown without it\n",
                     jx::preferencesPath(domain, kJXDefaultsUser).c_str(), why->c_str());
    if (args.empty()) {
        std::printf("%s\n", jx::Value(effectiveDomain(domain)).description().c_str());
        return 0;
    }
    jx::Value v = JXDefaultsCopyValueForKeyForAppSync(args[0], domain, true);
    if (v.isNil()) {
        std::fprintf(stderr, "joulixctl: the setting (%s, %s) does not exist\n", domain.c_str(), args[0].c_str());
        return 1;
    }
    std::printf("%s\n", v.description().c_str());
    return 0;
}

int defaultsWrite(const std::string& domain, const std::vector<std::string>& args) {
    if (args.size() < 2) return usageError("defaults write needs a key and a value");
    const std::string& key = args[0];
    std::string type = "-string";
    std::size_t first = 1;
    if (args[1].size() > 1 && args[1][0] == '-' && parseReal(args[1]) == std::nullopt) {
        type = args[1];
        first = 2;
    }
    std::vector<std::string> values(args.begin() + static_cast<long>(first), args.end());
    if (type != "-array" && type != "-dict" && type != "-dict-add" && values.size() != 1)
        return usageError(values.empty() ? "defaults write needs a value" : "only -array and -dict take several values");

    std::optional<jx::Value> value;
    if (type == "-string") value = jx::Value(values[0]);
    else if (type == "-int" || type == "-integer") value = parseInteger(values[0]);
    else if (type == "-float") value = parseReal(values[0]);
    else if (type == "-bool" || type == "-boolean") value = parseBool(values[0]);
    else if (type == "-array") {
        jx::Array a;
        for (auto& s : values) a.emplace_back(s);
        value = jx::Value(a);
    } else if (type == "-dict" || type == "-dict-add") {
        if (values.empty() || values.size() % 2 != 0) return usageError((type + " takes KEY VALUE pairs").c_str());
        jx::Dictionary d;
        if (type == "-dict-add") {
            jx::PreferencesStore::shared().synchronize(domain, kJXDefaultsUser);
            jx::Value existing = jx::PreferencesStore::shared().copyValue(key, domain, kJXDefaultsUser);
            if (!existing.isNil() && !existing.isDictionary()) {
                std::fprintf(stderr, "joulixctl: %s holds %s, not a dictionary: nothing was added\n", key.c_str(),
                             existing.description().c_str());
                return 1;
            }
            if (const jx::Dictionary* kept = existing.asDictionary()) d = *kept;
        }
        for (std::size_t k = 0; k < values.size(); k += 2) d[values[k]] = jx::Value(values[k + 1]);
        value = jx::Value(d);
    } else {
        std::fprintf(stderr, "joulixctl: unknown value type '%s'\n", type.c_str());
        return 2;
    }
    if (!value) {
        std::fprintf(stderr, "joulixctl: '%s' is not a valid %s value; nothing was written\n", values[0].c_str(),
                     type.c_str() + 1);
        return 1;
    }
    if (refuseUnreadable(domain)) return 1;
    JXDefaultsSetValueForKeyInDomain(key, *value, domain);
    // Read it back: a write that did not reach the file must not pass silently.
    jx::PreferencesStore::shared().synchronize(domain, kJXDefaultsUser);
    if (!(jx::PreferencesStore::shared().copyValue(key, domain, kJXDefaultsUser) == *value)) {
        std::fprintf(stderr, "joulixctl: could not write %s\n", jx::preferencesPath(domain, kJXDefaultsUser).c_str());
        return 1;
    }
    // Written as asked, but said: the daemon will read it otherwise than written.
    if (domain == kJXDefaultsDomain)
        if (std::optional<std::string> warning = writeWarning(key, *value))
            std::fprintf(stderr, "joulixctl: warning: %s: %s\n", key.c_str(), warning->c_str());
    return 0;
}

int defaultsDelete(const std::string& domain, const std::vector<std::string>& args) {
    if (args.size() != 1) return usageError("defaults delete takes one key");
    if (refuseUnreadable(domain)) return 1;
    jx::PreferencesStore::shared().synchronize(domain, kJXDefaultsUser);
    if (jx::PreferencesStore::shared().copyValue(args[0], domain, kJXDefaultsUser).isNil()) {
        std::fprintf(stderr, "joulixctl: the setting (%s, %s) does not exist\n", domain.c_str(), args[0].c_str());
        return 1;
    }
    JXDefaultsSetValueForKeyInDomain(args[0], jx::Value(), domain);
    return 0;
}

int postCommand(const std::string& name) {
    if (!jx::SystemNotificationCenter::shared().post(name)) {
        std::fprintf(stderr, "joulixctl: could not post %s\n", name.c_str());
        return 1;
    }
    return 0;
}

// A request to the daemon stays on the bus until the daemon has named its sender
// (it acts only for root, its own user and the group joulix, and a sender already
// gone cannot be named), and says so when nobody answers.
int steerCommand(const std::string& name) {
    using Receipt = jx::SystemNotificationCenter::Receipt;
    if (!jx::DaemonService::running())
        std::fprintf(stderr, "joulixctl: warning: no daemon owns %s on the system bus: joulix does not seem to run\n",
                     jx::kDaemonBusName);
    switch (jx::SystemNotificationCenter::shared().postAwaitingReceipt(name, 2.0)) {
        case Receipt::Received: std::printf("sent %s: the daemon took it\n", name.c_str()); return 0;
        case Receipt::Posted:
            std::fprintf(stderr,
                         "joulixctl: sent %s, but no daemon took it within 2 s: joulix is not running, or the bus does "
                         "not let this user post (root and the group joulix may)\n",
                         name.c_str());
            return 1;
        case Receipt::NotPosted: break;
    }
    std::fprintf(stderr, "joulixctl: could not post %s\n", name.c_str());
    return 1;
}

// "2026-11-23T10:00:00.000Z" as the reader's local time, "2026-11-23 11:00:00".
std::string localTime(const nlohmann::json& iso) {
    if (!iso.is_string()) return "-";
    std::tm tm{};
    const std::string text = iso.get<std::string>();
    if (!strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm)) return text;
    std::time_t t = timegm(&tm);
    std::tm local{};
    localtime_r(&t, &local);
    char out[40];
    std::strftime(out, sizeof out, "%Y-%m-%d %H:%M:%S %Z", &local);
    return out;
}

std::string bytesText(std::uint64_t n) {
    const char* units[] = {"B", "KB", "MB", "GB"};
    double v = static_cast<double>(n);
    int u = 0;
    while (v >= 1024 && u < 3) v /= 1024, ++u;
    char out[32];
    std::snprintf(out, sizeof out, u ? "%.1f %s" : "%.0f %s", v, units[u]);
    return out;
}

// The running daemon's state, asked of it under its name on the system bus; status 3
// (the convention for "not running") when nobody answers.
int statusCommand(const std::vector<std::string>& args) {
    bool json = false;
    for (const std::string& a : args) {
        if (a == "--json") json = true;
        else return usageError("status takes only --json, not '" + a + "'");
    }
    std::string why;
    std::optional<std::string> text = jx::DaemonService::queryStatus(1.0, &why);
    if (!text) {
        std::fprintf(stderr, "joulix is not running (%s)\n", why.c_str());
        return 3;
    }
    nlohmann::json s = nlohmann::json::parse(*text, nullptr, false);
    if (s.is_discarded()) {
        std::fprintf(stderr, "joulixctl: the daemon's answer is no JSON\n");
        return 1;
    }
    if (json) {
        std::printf("%s\n", s.dump(2).c_str());
        return 0;
    }
    const nlohmann::json& log = s["log"];
    std::printf("joulix is running: pid %s since %s, version %s (commit %s)\n", s["pid"].dump().c_str(),
                localTime(s["running_since"]).c_str(), s.value("version", "?").c_str(), s.value("commit", "?").c_str());
    std::printf("log:          %s (%s)\n", log.value("path", "-").c_str(),
                log["size_bytes"].is_number() ? bytesText(log["size_bytes"].get<std::uint64_t>()).c_str() : "missing");
    std::printf("  GUID:       %s, begun %s\n", log["guid"].is_string() ? log["guid"].get<std::string>().c_str() : "-",
                localTime(log["started"]).c_str());
    std::printf("mode:         %s\n", s.value("logging_mode", "-").c_str());
    std::printf("next roll:    %s\n", localTime(s["next_rollover"]).c_str());
    std::printf("archives:     %s, %s\n", s["archives"]["count"].dump().c_str(),
                bytesText(s["archives"]["bytes"].get<std::uint64_t>()).c_str());
    std::printf("own CPU time: %.2f s\n", s.value("cpu_seconds", 0.0));
    std::printf("loggers (%zu):\n", s["loggers"].size());
    for (const auto& l : s["loggers"])
        std::printf("  %-28s last sample %s\n", l.value("name", "?").c_str(), localTime(l["last_sample"]).c_str());
    if (!s["loggers_not_found"].empty()) {
        std::printf("not found (%zu):", s["loggers_not_found"].size());
        for (const auto& n : s["loggers_not_found"]) std::printf(" %s", n.get<std::string>().c_str());
        std::printf("\n");
    }
    return 0;
}

int waitCommand(const std::vector<std::string>& args) {
    std::string name;
    double timeout = -1;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--timeout") {
            std::optional<jx::Value> v = i + 1 < args.size() ? parseReal(args[i + 1]) : std::nullopt;
            if (!v || v->doubleValue() < 0) return usageError("--timeout needs a number of seconds");
            timeout = v->doubleValue();
            ++i;
        } else if (name.empty()) {
            name = args[i];
        } else {
            return usageError("wait takes one name");
        }
    }
    if (name.empty()) return usageError("wait needs a notification name");

    bool arrived = false;
    std::shared_ptr<jx::RunLoop> loop = jx::RunLoop::current();
    auto& center = jx::SystemNotificationCenter::shared();
    if (!center.addObserver(&arrived, name, [](jx::SystemNotificationCenter*, void* flag, const std::string&, const void*,
                                               const jx::Value&) { *static_cast<bool*>(flag) = true; })) {
        std::fprintf(stderr, "joulixctl: cannot observe %s: no system bus\n", name.c_str());
        return 1;
    }
    // Said once the bus delivers the name to us: a script may start the poster now.
    std::printf("waiting for %s\n", name.c_str());
    std::fflush(stdout);

    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout));
    while (!arrived) {
        int ms = -1;
        if (timeout >= 0) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) break;
            ms = static_cast<int>(std::min<long long>(left, 1 << 30));
        }
        if (loop->runUntilSourceHandled(ms) == jx::RunLoop::Result::Finished) break;
    }
    center.removeObserver(&arrived, name);
    if (!arrived) {
        std::fprintf(stderr, "joulixctl: %s did not arrive within %g s\n", name.c_str(), timeout);
        return 1;
    }
    std::printf("received %s\n", name.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string domain = kJXDefaultsDomain;
    enum { kRoot = 1, kDomain, kVersion };
    static const option options[] = {
        {"root", required_argument, nullptr, kRoot}, {"domain", required_argument, nullptr, kDomain},
        {"help", no_argument, nullptr, 'h'},         {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    // "+": options end at the command; what follows it is the command's own.
    for (int c; (c = getopt_long(argc, argv, "+:h", options, nullptr)) != -1;) {
        switch (c) {
            case kRoot: jx::setRoot(optarg); break;
            case kDomain:
                domain = optarg;
                if (!validDomain(domain)) {
                    std::fprintf(stderr, "joulixctl: '%s' is no domain: use a reverse-DNS name such as %s\n",
                                 domain.c_str(), kJXDefaultsDomain);
                    return 2;
                }
                break;
            case 'h': std::fputs(kUsage, stdout); return 0;
            case kVersion: std::printf("joulixctl %s (commit %s)\n", JOULIX_VERSION, JOULIX_COMMIT); return 0;
            case ':': return usageError(std::string("option '") + argv[optind - 1] + "' needs a value");
            default: return usageError(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    std::vector<std::string> args(argv + optind, argv + argc);
    if (args.empty()) return usageError("no command");
    const std::string command = args[0];
    std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "defaults") {
        if (rest.empty()) return usageError("defaults needs read, write or delete");
        const std::string verb = rest[0];
        rest.erase(rest.begin());
        if (verb == "read") return defaultsRead(domain, rest);
        if (verb == "write") return defaultsWrite(domain, rest);
        if (verb == "delete") return defaultsDelete(domain, rest);
        return usageError("unknown defaults command '" + verb + "'");
    }
    if (command == "status") return statusCommand(rest);
    if (command == "exit" || command == "trigger" || command == "unlock") {
        if (!rest.empty()) return usageError(command + " takes no arguments");
        if (command == "exit") return steerCommand(JXExitRequest);
        if (command == "trigger") return steerCommand(JXLogStateRequest);
        // The unlock is recorded where the lock state is read, then announced: until
        // then no log file can be secured, and the daemon leaves a present log alone.
        if (std::string why; !jx::recordFirstUnlock(&why))
            std::fprintf(stderr, "joulixctl: could not record the unlock in %s\n", why.c_str());
        return steerCommand(JXFirstUnlockNotification);
    }
    if (command == "post") {
        if (rest.size() != 1 || rest[0].empty()) return usageError("post takes one notification name");
        // The daemon's own requests wait for it like exit, trigger and unlock do.
        for (const char* steering : {JXExitRequest, JXLogStateRequest, JXFirstUnlockNotification})
            if (rest[0] == steering) return steerCommand(rest[0]);
        return postCommand(rest[0]);
    }
    if (command == "wait") return waitCommand(rest);
    if (command == "bbpower") return bbpowerCommand(rest);
    if (command == "log") return logCommand(rest);
    if (command == "export") return exportCommand(rest);
    if (command == "report") return reportCommand(rest);
    return usageError("unknown command '" + command + "'");
}
