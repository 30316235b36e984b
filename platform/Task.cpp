#include "platform/Task.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "platform/JXUtilities.h"
#include "platform/SystemLog.h"

extern char** environ;

namespace jx {

std::string shellEscapedForDoubleQuotes(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '"' || c == '$' || c == '`' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

std::string shellWord(std::string_view text) {
    bool plain = !text.empty();
    for (unsigned char c : text) {
        bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    std::strchr("_./-+:,@%=", c) != nullptr;
        if (!safe || c == 0) plain = false;
    }
    if (plain) return std::string(text);
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

namespace {

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct SpawnSetup {
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    bool haveAttr = false, haveActions = false;
    ~SpawnSetup() {
        if (haveActions) posix_spawn_file_actions_destroy(&actions);
        if (haveAttr) posix_spawnattr_destroy(&attr);
    }
};

}  // namespace
}  // namespace jx

int JXUtilities::openTask(const std::string& command) { return openTask(command, -1); }

int JXUtilities::openTask(const std::string& command, int standardOutput) {
    jx::SpawnSetup setup;
    if (posix_spawnattr_init(&setup.attr) != 0) return -1;
    setup.haveAttr = true;
    if (posix_spawn_file_actions_init(&setup.actions) != 0) return -1;
    setup.haveActions = true;

    // The daemon's threads block the signals its signal thread waits for; a tool
    // started from one of them must not inherit that mask, nor any ignored signal.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&setup.attr, &none);
    posix_spawnattr_setsigdefault(&setup.attr, &all);
    posix_spawnattr_setflags(&setup.attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    // Nothing the task runs may wait on the daemon's standard input.
    posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (standardOutput >= 0) posix_spawn_file_actions_adddup2(&setup.actions, standardOutput, STDOUT_FILENO);

    std::string arg0 = "sh", arg1 = "-c", arg2 = command;
    char* argv[] = {arg0.data(), arg1.data(), arg2.data(), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, "/bin/sh", &setup.actions, &setup.attr, argv, environ);
    if (rc != 0) {
        jx::systemLogf(jx::kLogError, "openTask: cannot start /bin/sh: %s", std::strerror(rc));
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}
