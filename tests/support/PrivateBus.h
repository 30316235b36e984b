// A private dbus-daemon (session configuration) that is the system bus of this
// process and of the processes it starts, for the object's life. Header-only, so
// that benchmarks use it without the test framework.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace jxtest {

class PrivateBus {
public:
    // With a configuration, the bus runs on it instead of the session bus's (its
    // <listen> is replaced by the private socket), and other users may reach the socket.
    explicit PrivateBus(const std::string& configuration = "") {
        if (access("/usr/bin/dbus-daemon", X_OK) != 0) return;
        char pattern[] = "/tmp/joulix-bus-XXXXXX";
        if (!mkdtemp(pattern)) return;
        dir_ = pattern;
        if (!configuration.empty()) {
            config_ = dir_ + "/bus.conf";
            FILE* f = fopen(config_.c_str(), "w");
            if (!f) return;
            fputs(configuration.c_str(), f);
            fclose(f);
            chmod(dir_.c_str(), 0755);
        }
        if (!start()) return;
        address_ = "unix:path=" + dir_ + "/bus";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    }
    ~PrivateBus() {
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        stop();
        if (!dir_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }
    // The bus goes away and comes back at the same address, as a restarted system bus does.
    bool restart() {
        stop();
        return start();
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // NO when dbus-daemon is not installed or did not start: the test should skip.
    bool available() const { return !address_.empty(); }
    const std::string& address() const { return address_; }

private:
    void stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        ::unlink((dir_ + "/bus").c_str());
    }
    bool start() {
        const std::string socket = dir_ + "/bus";
        const std::string listen = "--address=unix:path=" + socket;
        pid_ = fork();
        if (pid_ == 0) {
            int null = open("/dev/null", O_RDWR);
            dup2(null, 1);
            dup2(null, 2);
            const std::string configFile = "--config-file=" + config_;
            execl("/usr/bin/dbus-daemon", "dbus-daemon", config_.empty() ? "--session" : configFile.c_str(), "--nofork",
                  "--nopidfile", listen.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        if (pid_ < 0) return false;
        // The socket's name appears when it is bound, a moment before the daemon
        // listens: the bus is up once a connection is accepted.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socket.c_str());
        for (;;) {
            int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const bool up = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            if (fd >= 0) ::close(fd);
            if (up) return true;
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    pid_t pid_ = -1;
    std::string dir_;
    std::string config_;
    std::string address_;
};

#ifdef JOULIX_DBUS_POLICY
// A bus that any user may reach, with the shipped policy (JOULIX_DBUS_POLICY) or without it.
inline std::string openBusConfiguration(bool withPolicy) {
    return std::string(R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
)") + (withPolicy ? std::string("  <include>") + JOULIX_DBUS_POLICY + "</include>\n" : std::string()) +
           "</busconfig>\n";
}
#endif

}  // namespace jxtest
