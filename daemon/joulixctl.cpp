// joulixctl: the control tool. Reads and writes the daemon's settings through the
// same settings layer the daemon uses, and steers a running daemon with
// system-wide notifications.
#include <algorithm>
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
#include "platform/FileProtection.h"
#include "platform/NotificationCenter.h"
#include "platform/NotificationNames.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "platform/Root.h"

int bbpowerCommand(const std::vector<std::string>& args);

namespace {

const char* const kUsage =
    "usage: joulixctl [--root DIR] [--domain DOMAIN] COMMAND\n"
    "commands:\n"
    "  defaults read [KEY]                 print one setting, or every setting of the domain\n"
    "  defaults write KEY [TYPE] VALUE...  set a setting; TYPE is -string (default), -int,\n"
    "                                      -float, -bool (YES/NO, true/false, 1/0), -array or\n"
    "                                      -dict (KEY VALUE pairs: a logger's own settings,\n"
    "                                      e.g. defaults write JXThermalLogger -dict Enabled NO)\n"
    "  defaults delete KEY                 remove a setting\n"
    "  exit                                ask the daemon to exit\n"
    "  status                              make every logger of the daemon log now\n"
    "  unlock                              record and announce the device's first unlock\n"
    "  post NAME                           post any system-wide notification\n"
    "  wait NAME [--timeout S]             wait for a system-wide notification; status 1\n"
    "                                      when S seconds pass first (default: no limit)\n"
    "  bbpower [DIR] [--notify]            one baseband power analysis of DIR (default: the\n"
    "                                      crash-report directory); says where its results went\n"
    "The domain is com.brindle.joulix unless --domain names another. Notifications go over\n"
    "the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured).\n";

int usageError(const char* why) {
    std::fprintf(stderr, "joulixctl: %s\n%s", why, kUsage);
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

// The settings of a domain as the daemon sees them: the store first, then the managed file.
jx::Dictionary effectiveDomain(const std::string& domain) {
    jx::Dictionary merged;
    if (auto managed = jx::readPropertyListFile(JXDefaultsManagedPreferencesPath(domain)))
        if (const jx::Dictionary* d = managed->asDictionary()) merged = *d;
    jx::PreferencesStore::shared().synchronize(domain, kJXDefaultsUser);
    for (auto& [k, v] : jx::PreferencesStore::shared().copyDomain(domain, kJXDefaultsUser)) merged[k] = v;
    return merged;
}

int defaultsRead(const std::string& domain, const std::vector<std::string>& args) {
    if (args.size() > 1) return usageError("defaults read takes at most one key");
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
    if (type != "-array" && type != "-dict" && values.size() != 1)
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
    } else if (type == "-dict") {
        if (values.empty() || values.size() % 2 != 0) return usageError("-dict takes KEY VALUE pairs");
        jx::Dictionary d;
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
    JXDefaultsSetValueForKeyInDomain(key, *value, domain);
    // Read it back: a write that did not reach the file must not pass silently.
    jx::PreferencesStore::shared().synchronize(domain, kJXDefaultsUser);
    if (!(jx::PreferencesStore::shared().copyValue(key, domain, kJXDefaultsUser) == *value)) {
        std::fprintf(stderr, "joulixctl: could not write %s\n", jx::preferencesPath(domain, kJXDefaultsUser).c_str());
        return 1;
    }
    // Written as asked, but said: an age that reads as no time at all ("two weeks"
    // reads as 0) makes the daemon delete every archive at its next roll.
    if (domain == kJXDefaultsDomain && key == JXJoulixArchiveDays &&
        JoulixMain::ComputeTimeFromNowFromDefaults(*value) == 0)
        std::fprintf(stderr,
                     "joulixctl: warning: %s '%s' reads as 0 seconds: every archive will be deleted at the next "
                     "roll (use a number of days, or \"N day\", \"N hour\", \"N minute\")\n",
                     key.c_str(), values[0].c_str());
    return 0;
}

int defaultsDelete(const std::string& domain, const std::vector<std::string>& args) {
    if (args.size() != 1) return usageError("defaults delete takes one key");
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
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string domain = kJXDefaultsDomain;
    std::size_t i = 0;
    while (i < args.size() && args[i].rfind("--", 0) == 0) {
        if (args[i] == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (i + 1 >= args.size()) return usageError(("option " + args[i] + " needs a value").c_str());
        if (args[i] == "--root") jx::setRoot(args[i + 1]);
        else if (args[i] == "--domain") domain = args[i + 1];
        else return usageError(("unknown option " + args[i]).c_str());
        i += 2;
    }
    if (i >= args.size()) return usageError("no command");
    std::string command = args[i++];
    if (command == "defaults") {
        if (i >= args.size()) return usageError("defaults needs read, write or delete");
        std::string verb = args[i++];
        std::vector<std::string> rest(args.begin() + static_cast<long>(i), args.end());
        if (verb == "read") return defaultsRead(domain, rest);
        if (verb == "write") return defaultsWrite(domain, rest);
        if (verb == "delete") return defaultsDelete(domain, rest);
        return usageError(("unknown defaults command " + verb).c_str());
    }
    std::vector<std::string> rest(args.begin() + static_cast<long>(i), args.end());
    if (command == "exit" || command == "status" || command == "unlock") {
        if (!rest.empty()) return usageError((command + " takes no arguments").c_str());
        if (command == "exit") return postCommand(JXExitRequest);
        if (command == "status") return postCommand(JXLogStateRequest);
        // The unlock is recorded where the lock state is read, then announced: until
        // then no log file can be secured, and the daemon leaves a present log alone.
        if (std::string why; !jx::recordFirstUnlock(&why))
            std::fprintf(stderr, "joulixctl: could not record the unlock in %s\n", why.c_str());
        return postCommand(JXFirstUnlockNotification);
    }
    if (command == "post") {
        if (rest.size() != 1 || rest[0].empty()) return usageError("post takes one notification name");
        return postCommand(rest[0]);
    }
    if (command == "wait") return waitCommand(rest);
    if (command == "bbpower") return bbpowerCommand(rest);
    return usageError(("unknown command " + command).c_str());
}
