// Runs the real binaries for integration tests: a child process with its own
// environment, standard output and error captured in files; and the fixture every
// run of them shares (a private root, the tools run in it, a private bus if asked).
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"

namespace jxtest {

namespace fs = std::filesystem;

inline const std::string kFakeTime = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
inline const std::string kLogs = "/var/mobile/Library/Logs";
inline const std::string kLog = kLogs + "/CurrentJoulix.joulix";
inline const std::string kFaultkeeper = kLogs + "/Faultkeeper";
inline const std::string kArchive = kLogs + "/JXArchive";
inline const std::string kPrefs = "/var/mobile/Library/Preferences/com.brindle.joulix.plist";

inline std::string binary(const std::string& name) {
    const char* dir = std::getenv("JOULIX_BIN_DIR");
    return std::string(dir ? dir : ".") + "/" + name;
}

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// The end of a long text (a daemon's messages), where the reason for a failure is.
inline std::string tail(const std::string& text, std::size_t size = 4000) {
    return text.size() > size ? text.substr(text.size() - size) : text;
}

// Each of the parts is in the text (an EXPECT for each).
#define EXPECT_HAS(text, ...)                                                                                    \
    for (const std::string t_ = (text); const std::string& p_ : std::initializer_list<std::string>{__VA_ARGS__}) \
    EXPECT_TRUE(::jxtest::has(t_, p_)) << p_ << "\n" << ::jxtest::tail(t_)

class Process {
public:
    Process(std::vector<std::string> argv, const std::string& outputPrefix,
            const std::map<std::string, std::string>& env = {})
        : out_(outputPrefix + ".out"), err_(outputPrefix + ".err") {
        std::fflush(nullptr);  // else the child's freopen writes out the parent's buffered output again
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
        if (!exited_ && pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    }

    pid_t pid() const { return pid_; }
    void signal(int signo) const { kill(pid_, signo); }
    // The exit status, or nullopt when the process has not ended within the time.
    std::optional<int> wait(double seconds = 30.0) {
        int status = 0;
        if (!waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, seconds)) return std::nullopt;
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
    // joulixctl under the root, started and left running.
    std::unique_ptr<Process> startCtl(std::vector<std::string> args) {
        args.insert(args.begin(), {binary("joulixctl"), "--root", root.path()});
        return std::make_unique<Process>(args, out("ctl"), env);
    }
    // joulixctl under the root, run to its end; answers its exit status.
    int ctl(std::vector<std::string> args, std::string* stdoutText = nullptr, std::string* stderrText = nullptr) {
        auto p = startCtl(std::move(args));
        auto status = p->wait();
        EXPECT_TRUE(status) << "joulixctl did not end";
        if (stdoutText) *stdoutText = p->out();
        if (stderrText) *stderrText = p->err();
        return status.value_or(-1);
    }
    // Settings written with joulixctl defaults write, each one's arguments in turn.
    void write(const std::vector<std::vector<std::string>>& settings) {
        for (auto args : settings) {
            args.insert(args.begin(), {"defaults", "write"});
            ASSERT_EQ(ctl(args), 0) << args[2];
        }
    }
    // The daemon under the root, its messages on standard error; its clock faked
    // from the given start when there is one (the library preloaded into the daemon
    // itself, so that signals reach it).
    std::unique_ptr<Process> joulix(std::vector<std::string> args = {}, const std::string& faketime = "") {
        args.insert(args.begin(), {binary("joulix"), "--root", root.path(), "--log-stderr"});
        auto e = preloadEnv();
        if (!faketime.empty()) {
            e["LD_PRELOAD"] = kFakeTime;
            e["FAKETIME"] = faketime;
        }
        return std::make_unique<Process>(args, out("joulix"), e);
    }
    // Under AddressSanitizer a preloaded library comes before the sanitizer's runtime.
    std::map<std::string, std::string> preloadEnv() {
        auto e = env;
        const char* asan = std::getenv("ASAN_OPTIONS");
        e["ASAN_OPTIONS"] = std::string(asan ? asan : "") + ":verify_asan_link_order=0";
        return e;
    }
    void installComposer() {
        fs::create_directories(root("/usr/lib/joulix/Frameworks"));
        fs::copy_file(JOULIX_LARKIN_COMPOSE, root("/usr/lib/joulix/Frameworks/LarkinCompose.so"));
    }
    // One run of the daemon with --once; answers its exit status.
    int once(std::string* err = nullptr, double seconds = 60) {
        auto p = joulix({"--once"});
        auto status = p->wait(seconds);
        lastErr = p->err();
        if (err) *err = lastErr;
        return status.value_or(-1);
    }
    // The daemon on the bus in env, returned once it has said there that it is set up.
    std::unique_ptr<Process> startOnBus() {
        auto waiter = startCtl({"wait", "com.brindle.joulix.StateChanged", "--timeout", "30"});
        EXPECT_TRUE(waitFor([&] { return has(waiter->out(), "waiting for"); })) << waiter->err();
        auto daemon = joulix();
        EXPECT_EQ(waiter->wait(), 0) << waiter->err() << tail(daemon->err());
        return daemon;
    }
    // A private bus, made the system bus of every run; false when there can be none.
    bool useBus(const std::string& configuration = "") {
        bus.reset();  // the old one's address goes before the new one's is set
        bus = std::make_unique<PrivateBus>(configuration);
        if (bus->available()) env["DBUS_SYSTEM_BUS_ADDRESS"] = bus->address();
        return bus->available();
    }
    std::string logText() { return root.readFile(kLog); }
    bool logShows(const std::string& what, std::size_t times = 1, double seconds = 10) {
        return waitFor([&] { return occurrences(logText(), what) >= times; }, seconds);
    }
    // The sorted names in a root-relative directory that end in the suffix.
    std::vector<std::string> names(const std::string& dir, const std::string& suffix = "") {
        std::vector<std::string> found;
        std::error_code ec;  // none before the daemon has made the directory
        for (fs::directory_iterator it(root(dir), ec), end; !ec && it != end; it.increment(ec))
            if (it->path().string().ends_with(suffix)) found.push_back(it->path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }
    // Three days of logs, rolled and archived, a zero-filled tail at the end (TZ=UTC).
    LogTruth generate(int days = 3) {
        env["TZ"] = "UTC";
        LogGeneratorOptions o;
        o.days = days;
        o.periodSeconds = 120;
        o.zeroTailBytes = 1000;
        return generateLogs(root.path(), o);
    }
    static bool haveFakeTime() { return access(kFakeTime.c_str(), R_OK) == 0; }

    TestRoot root;
    std::map<std::string, std::string> env{{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/joulix-bus"}};
    std::unique_ptr<PrivateBus> bus;
    std::string lastErr;
    int runs = 0;
};

}  // namespace jxtest
