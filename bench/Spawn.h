// Starts a program for a benchmark, its output thrown away; the system bus is the
// private one when one is up.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace jxbench {

inline pid_t spawnQuiet(std::vector<std::string> argv) {
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_RDWR);
        dup2(null, 1);
        dup2(null, 2);
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

}  // namespace jxbench
