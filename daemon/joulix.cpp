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
#include "platform/Root.h"
#include "platform/SignalThread.h"
#include "platform/SystemLog.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: joulix [--root DIR] [--once | --stdout] [--log-stderr]\n"
                 "  (no option)   run as a daemon, logging to the current log until asked to exit\n"
                 "  --once        log once into the current log file, then exit\n"
                 "  --stdout      log once to standard output, then exit\n"
                 "  --root DIR    take every fixed path under DIR (default: $JOULIX_ROOT, else /)\n"
                 "  --log-stderr  copy every system-log message to standard error\n");
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
        std::error_code ec;
        std::string path = jx::rootPath(dir);
        std::filesystem::create_directories(path, ec);
        if (ec) jx::systemLogf(jx::kLogWarning, "cannot create %s: %s", path.c_str(), ec.message().c_str());
    }
}

// SIGTERM and SIGINT are exit requests.
void exitSignal(int) {
    if (auto controller = JoulixMain::existingSharedJoulixMain()) controller->joulixExitRequested();
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
    enum { kRoot = 1, kOnce, kStdout, kLogStderr, kHelp };
    static const option options[] = {
        {"root", required_argument, nullptr, kRoot},   {"once", no_argument, nullptr, kOnce},
        {"stdout", no_argument, nullptr, kStdout},     {"log-stderr", no_argument, nullptr, kLogStderr},
        {"help", no_argument, nullptr, kHelp},         {nullptr, 0, nullptr, 0},
    };
    bool once = false, toStdout = false;
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (c) {
            case kRoot: jx::setRoot(optarg); break;
            case kOnce: once = true; break;
            case kStdout: toStdout = true; break;
            case kLogStderr: jx::setLogToStderr(true); break;
            case kHelp: usage(stdout); return 0;
            default:
                std::fprintf(stderr, "joulix: unknown or incomplete option '%s'\n", argv[optind - 1]);
                usage(stderr);
                return 2;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "joulix: unexpected argument '%s'\n", argv[optind]);
        usage(stderr);
        return 2;
    }
    if (once && toStdout) {
        std::fprintf(stderr, "joulix: --once and --stdout exclude each other\n");
        usage(stderr);
        return 2;
    }

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
    controller->run();
    controller.reset();
    JoulixMain::waitForRunThreads();

    // The log is closed. An archive being written is finished, so that no half
    // archive is left behind; samples still queued by loggers are not waited for.
    JoulixMain::archiveQueue().sync([] {});
    // Leave without running static destructors: loggers, the signal thread and the
    // writer may still be at work, and must not find the objects they use gone.
    jx::ignoreSignal(SIGUSR1);
    std::fflush(nullptr);
    std::_Exit(0);
}
