// Runs the real binaries for integration tests: a child process with its own
// environment, standard output and error captured in files.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TestSupport.h"

namespace jxtest {

inline const std::string kFakeTime = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";

inline std::string binary(const std::string& name) {
    const char* dir = std::getenv("JOULIX_BIN_DIR");
    return std::string(dir ? dir : ".") + "/" + name;
}

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// The end of a long text (a daemon's messages), where the reason for a failure is.
inline std::string tail(const std::string& text, std::size_t size = 4000) {
    return text.size() > size ? text.substr(text.size() - size) : text;
}

class Process {
public:
    Process(std::vector<std::string> argv, const std::string& outputPrefix,
            const std::map<std::string, std::string>& env = {})
        : out_(outputPrefix + ".out"), err_(outputPrefix + ".err") {
        pid_ = fork();
        if (pid_ == 0) {
            for (auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
            if (!freopen(out_.c_str(), "w", stdout) || !freopen(err_.c_str(), "w", stderr)) _exit(127);
            std::vector<char*> args;
            for (auto& a : argv) args.push_back(a.data());
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~Process() {
        if (!exited_ && pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    pid_t pid() const { return pid_; }
    void signal(int signo) const { kill(pid_, signo); }
    // The exit status, or nullopt when the process has not ended within the time.
    std::optional<int> wait(double seconds = 30.0) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (;;) {
            int status = 0;
            pid_t r = waitpid(pid_, &status, WNOHANG);
            if (r == pid_) {
                exited_ = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    std::string out() const { return slurp(out_); }
    std::string err() const { return slurp(err_); }

private:
    pid_t pid_ = -1;
    bool exited_ = false;
    std::string out_, err_;
};

// The real binaries under a private root, with no system bus unless the test gives one.
class BinariesTest : public ::testing::Test {
protected:
    // A fresh path for one run's captured output.
    std::string out(const std::string& name) { return root.path() + "/" + name + std::to_string(++runs); }
    // joulixctl under the root, run to its end; answers its exit status.
    int ctl(std::vector<std::string> args, std::string* stdoutText = nullptr, std::string* stderrText = nullptr) {
        args.insert(args.begin(), {binary("joulixctl"), "--root", root.path()});
        Process p(args, out("ctl"), env);
        auto status = p.wait();
        EXPECT_TRUE(status) << "joulixctl did not end";
        if (stdoutText) *stdoutText = p.out();
        if (stderrText) *stderrText = p.err();
        return status.value_or(-1);
    }
    // The daemon under the root, its messages on standard error; its clock faked
    // from the given start when there is one (the library preloaded into the daemon
    // itself, so that signals reach it).
    std::unique_ptr<Process> joulix(std::vector<std::string> args = {}, const std::string& faketime = "") {
        args.insert(args.begin(), {binary("joulix"), "--root", root.path(), "--log-stderr"});
        auto e = env;
        if (!faketime.empty()) {
            e["LD_PRELOAD"] = kFakeTime;
            e["FAKETIME"] = faketime;
            // Under AddressSanitizer the preloaded library comes before the sanitizer's runtime.
            const char* asan = std::getenv("ASAN_OPTIONS");
            e["ASAN_OPTIONS"] = std::string(asan ? asan : "") + ":verify_asan_link_order=0";
        }
        return std::make_unique<Process>(args, out("joulix"), e);
    }

    TestRoot root;
    std::map<std::string, std::string> env{{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/joulix-bus"}};
    int runs = 0;
};

}  // namespace jxtest
