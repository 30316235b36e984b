// The daemon as a service: readiness and stopping told through NOTIFY_SOCKET, the
// status query under its name on a bus with the shipped policy, a clean stop that
// the log records, and command lines that answer like the tools people know.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::tail;
using jxtest::waitFor;

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";

// The service manager's end of NOTIFY_SOCKET: a datagram socket the daemon writes to.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path) : path_(path) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    ~NotifySocket() { ::close(fd_); }
    // The next message holding the text, or "" when none came in time.
    std::string waitFor(const std::string& text, int ms = 20000) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 100) != 1) continue;
            char buf[4096];
            ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
            if (n > 0 && std::string(buf, static_cast<std::size_t>(n)).find(text) != std::string::npos)
                return std::string(buf, static_cast<std::size_t>(n));
        }
        return "";
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    int fd_ = -1;
};

std::string headerField(const std::string& text, const std::string& key) {
    std::size_t at = text.find(key + "=");
    if (at == std::string::npos) return "";
    at += key.size() + 1;
    return text.substr(at, text.find(';', at) - at);
}

class ServiceTest : public jxtest::BinariesTest {};

TEST_F(ServiceTest, ReadyStatusAndAVisibleStop) {
    jxtest::PrivateBus bus(jxtest::openBusConfiguration(true));
    if (!bus.available()) GTEST_SKIP() << "dbus-daemon did not start";
    env["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address();
    NotifySocket notify(root("/notify"));
    env["NOTIFY_SOCKET"] = notify.path();

    auto daemon = joulix();
    ASSERT_NE(notify.waitFor("READY=1"), "") << tail(daemon->err());
    // Ready means the first entries are on disk.
    const std::string text = root.readFile(kLog);
    ASSERT_NE(text.find("[Joulix]"), std::string::npos);

    std::string out, err;
    ASSERT_EQ(ctl({"status", "--json"}, &out, &err), 0) << err;
    nlohmann::json s = nlohmann::json::parse(out, nullptr, false);
    ASSERT_FALSE(s.is_discarded()) << out;
    EXPECT_EQ(s["pid"], daemon->pid());
    EXPECT_EQ(s["log"]["path"], root(kLog));
    struct stat st {};
    ASSERT_EQ(::stat(root(kLog).c_str(), &st), 0);
    EXPECT_GT(s["log"]["size_bytes"].get<long long>(), 0);
    EXPECT_LE(s["log"]["size_bytes"].get<long long>(), st.st_size);
    EXPECT_EQ(s["log"]["guid"], headerField(text, "File_GUID"));
    EXPECT_TRUE(s["log"]["started"].is_string());
    EXPECT_EQ(s["logging_mode"], "Lite");
    EXPECT_TRUE(s["next_rollover"].is_string()) << s.dump();
    EXPECT_EQ(s["archives"]["count"], 0);
    bool configSampled = false;
    for (const auto& l : s["loggers"]) configSampled |= l["name"] == "JXConfigLogger" && l["last_sample"].is_string();
    EXPECT_TRUE(configSampled) << s["loggers"].dump();
    EXPECT_NE(std::find(s["loggers_not_found"].begin(), s["loggers_not_found"].end(), "JXStoreLogger"),
              s["loggers_not_found"].end());
    // The readable form says the same.
    ASSERT_EQ(ctl({"status"}, &out), 0);
    EXPECT_NE(out.find("joulix is running: pid " + std::to_string(daemon->pid())), std::string::npos) << out;

    daemon->signal(SIGTERM);
    EXPECT_NE(notify.waitFor("STOPPING=1"), "");
    EXPECT_EQ(daemon->wait(10), 0);
    EXPECT_NE(root.readFile(kLog).find("[Log] state=stopping; reason=SIGTERM;"), std::string::npos);

    // Nobody answers now: the convention for "not running", at once.
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(ctl({"status"}, nullptr, &err), 3);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_NE(err.find("joulix is not running"), std::string::npos) << err;
}

// Both tools answer -h, --version and --root=DIR, and a usage error is one line with status 2.
TEST_F(ServiceTest, CommandLinesAnswerLikeTheToolsPeopleKnow) {
    struct Case {
        std::string tool;
        std::vector<std::string> args;
        int status;
        const char* out;  // in standard output
        const char* err;  // the whole of standard error
    } cases[] = {
        {"joulixctl", {"--version"}, 0, "joulixctl 6.01 (commit ", ""},
        {"joulixctl", {"-h"}, 0, "usage: joulixctl", ""},
        {"joulixctl", {"bogus"}, 2, "", "joulixctl: unknown command 'bogus'; see joulixctl --help\n"},
        {"joulixctl", {"--bogus"}, 2, "", "joulixctl: unknown option '--bogus'; see joulixctl --help\n"},
        {"joulixctl", {"--root"}, 2, "", "joulixctl: option '--root' needs a value; see joulixctl --help\n"},
        {"joulixctl", {"status", "--yaml"}, 2, "", "joulixctl: status takes only --json, not '--yaml'; see joulixctl --help\n"},
        {"joulix", {"--version"}, 0, "joulix 6.01 (commit ", ""},
        {"joulix", {"--help"}, 0, "usage: joulix", ""},
        {"joulix", {"--bogus"}, 2, "", "joulix: unknown option '--bogus'; see joulix --help\n"},
        {"joulix", {"--once", "--stdout"}, 2, "", "joulix: --once and --stdout exclude each other; see joulix --help\n"},
        {"joulix", {"extra"}, 2, "", "joulix: unexpected argument 'extra'; see joulix --help\n"},
        {"joulix", {"--root"}, 2, "", "joulix: option '--root' needs a value; see joulix --help\n"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv{jxtest::binary(c.tool)};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        jxtest::Process p(argv, out("cli"), env);
        EXPECT_EQ(p.wait(), c.status) << c.tool << " " << c.args[0];
        EXPECT_NE(p.out().find(c.out), std::string::npos) << c.tool << " " << c.args[0] << ": " << p.out();
        EXPECT_EQ(p.err(), c.err) << c.tool << " " << c.args[0];
    }
    // --root=DIR as well as --root DIR.
    jxtest::Process p({jxtest::binary("joulixctl"), "--root=" + root.path(), "defaults", "write", "JXRunLoopDebug", "-bool", "YES"},
                      out("cli"), env);
    EXPECT_EQ(p.wait(), 0) << p.err();
    EXPECT_TRUE(std::filesystem::exists(root("/var/mobile/Library/Preferences/com.brindle.joulix.plist")));
}

}  // namespace
