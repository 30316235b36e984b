// joulix: the power and activity logging daemon.
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "JoulixMain/JoulixMain.h"
#include "platform/DaemonService.h"
#include "platform/JXLogWriter.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SignalThread.h"
#include "platform/SystemLog.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: joulix [--root DIR] [--once | --stdout] [--log-stderr]\n"
                 "  (no option)     run as a daemon, logging to the current log until asked to exit\n"
                 "  --once          log once into the current log file, then exit\n"
                 "  --stdout        log once to standard output, then exit\n"
                 "  --root DIR      take every fixed path under DIR (default: $JOULIX_ROOT, else /)\n"
                 "  --log-stderr    copy every system-log message to standard error\n"
                 "  -h, --help      this text\n"
                 "  --version       the version and the commit it was built from\n"
                 "Signals: SIGUSR1 makes every logger log now, SIGHUP reads the settings again,\n"
                 "SIGTERM and SIGINT stop the daemon. See joulix(8).\n");
}

int usageError(const std::string& why) {
    std::fprintf(stderr, "joulix: %s; see joulix --help\n", why.c_str());
    return 2;
}

// The directories the daemon writes to, made under the root when missing.
void prepareLayout() {
    const char* const dirs[] = {
        "/var/mobile/Library/Logs/Faultkeeper", "/var/mobile/Library/Logs/JXArchive",
        "/var/mobile/Library/Preferences",      "/var/tmp",
        "/System/Library/JoulixPlugins",        "/Library/Managed Preferences/mobile",
        "/run/joulix",
    };
    for (const char* dir : dirs) {
        // Made through no link: "mobile" may own the directories on the way.
        std::string path = jx::rootPath(dir);
        if (!jx::openTreeDirectory(path, true).valid())
            jx::systemLogf(jx::kLogWarning, "cannot create %s: %s", path.c_str(), std::strerror(errno));
    }
}

// SIGTERM and SIGINT are exit requests. Said in the log before the controller winds
// down (its own state entries stop then): a stop asked for is not a crash.
void exitSignal(int signalNumber) {
    if (auto controller = JoulixMain::existingSharedJoulixMain()) {
        JXLogWriter::sharedWriter().logEntry("Log", std::string(" state=stopping; reason=SIG") + sigabbrev_np(signalNumber) + ";");
        controller->joulixExitRequested();
    }
}

// SIGHUP: the settings that may change at run time are read again, and every logger
// samples anew with them, as for SIGUSR1 (the log records "signal(1)").
void reloadSignal(int signalNumber) {
    if (auto controller = JoulixMain::existingSharedJoulixMain()) {
        controller->reloadSettings();
        controller->triggerAllLoggers(jx::formatString("signal(%d)", signalNumber));
    }
}

}  // namespace

int main(int argc, char** argv) {
    // A SIGUSR1 that comes before the controller is there to take it must not end
    // the daemon (its default action); the controller installs the real handler.
    jx::ignoreSignal(SIGUSR1);
    jx::ignoreSignal(SIGHUP);
    enum { kRoot = 1, kOnce, kStdout, kLogStderr, kVersion };
    static const option options[] = {
        {"root", required_argument, nullptr, kRoot},    {"once", no_argument, nullptr, kOnce},
        {"stdout", no_argument, nullptr, kStdout},      {"log-stderr", no_argument, nullptr, kLogStderr},
        {"help", no_argument, nullptr, 'h'},            {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    };
    bool once = false, toStdout = false;
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, ":h", options, nullptr)) != -1;) {
        switch (c) {
            case kRoot: jx::setRoot(optarg); break;
            case kOnce: once = true; break;
            case kStdout: toStdout = true; break;
            case kLogStderr: jx::setLogToStderr(true); break;
            case 'h': usage(stdout); return 0;
            case kVersion: std::printf("joulix %s (commit %s)\n", JOULIX_VERSION, JOULIX_COMMIT); return 0;
            case ':': return usageError(std::string("option '") + argv[optind - 1] + "' needs a value");
            default: return usageError(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    if (optind < argc) return usageError(std::string("unexpected argument '") + argv[optind] + "'");
    if (once && toStdout) return usageError("--once and --stdout exclude each other");

    prepareLayout();
    jx::setSignalHandler(SIGTERM, exitSignal);
    jx::setSignalHandler(SIGINT, exitSignal);
    jx::setSignalHandler(SIGHUP, reloadSignal);

    std::shared_ptr<JoulixMain> controller = JoulixMain::sharedJoulixMain();
    if (!controller) {
        std::fprintf(stderr, "joulix: the controller could not be created\n");
        return 1;
    }
    controller->setLogToFile(!toStdout);
    controller->setShouldKeepRunning(!once && !toStdout);
    // A daemon answers `joulixctl status` under its well-known name on the system bus.
    static jx::DaemonService service;
    if (!once && !toStdout)
        service.start([weak = std::weak_ptr<JoulixMain>(controller)] {
            auto c = weak.lock();
            return c ? c->statusJSON() : std::string("{}");
        });
    controller->run();
    controller.reset();
    JoulixMain::waitForRunThreads();

    // The log is closed. An archive being written is finished, so that no half
    // archive is left behind; samples still queued by loggers are not waited for.
    JoulixMain::archiveQueue().sync([] {});
    service.stop();
    // Leave without running static destructors: loggers, the signal thread and the
    // writer may still be at work, and must not find the objects they use gone.
    jx::ignoreSignal(SIGUSR1);
    std::fflush(nullptr);
    std::_Exit(0);
}
