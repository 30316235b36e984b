// Runs the real binaries for integration tests: a child process with its own
// environment, standard output and error captured in files.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace jxtest {

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

// How often a text holds a piece of text.
inline std::size_t occurrences(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
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

}  // namespace jxtest
