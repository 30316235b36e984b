// The daemon as a service: readiness and stopping told through NOTIFY_SOCKET, the
// status query under its name on a bus with the shipped policy, a clean stop that
// the log records, and command lines that answer like the tools people know.
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tests/integration/Process.h"

namespace {

using namespace jxtest;

// The service manager's end of NOTIFY_SOCKET: a datagram socket the daemon writes to.
struct NotifySocket {
    explicit NotifySocket(const std::string& path) {
        sockaddr_un a{AF_UNIX, {}};
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    ~NotifySocket() { ::close(fd); }
    // Whether a message holding the text came in time.
    bool waitFor(const std::string& text) {
        char buf[4096];
        return jxtest::waitFor(
            [&] {
                const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
                return n > 0 && has(std::string(buf, static_cast<std::size_t>(n)), text);
            },
            20);
    }
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

class ServiceTest : public BinariesTest {};

TEST_F(ServiceTest, ReadyStatusAndAVisibleStop) {
    if (!useBus(openBusConfiguration(true))) GTEST_SKIP() << "dbus-daemon did not start";
    NotifySocket notify(env["NOTIFY_SOCKET"] = root("/notify"));

    auto daemon = joulix();
    ASSERT_TRUE(notify.waitFor("READY=1")) << tail(daemon->err());
    // Ready means the first entries are on disk.
    const std::string text = logText();
    ASSERT_TRUE(has(text, "[Joulix]"));
    const std::size_t guid = text.find("File_GUID=") + 10;

    std::string out, err;
    ASSERT_EQ(ctl({"status", "--json"}, &out, &err), 0) << err;
    nlohmann::json s = nlohmann::json::parse(out, nullptr, false);
    ASSERT_FALSE(s.is_discarded()) << out;
    EXPECT_EQ(s["pid"], daemon->pid());
    EXPECT_EQ(s["log"]["path"], root(kLog));
    EXPECT_GT(s["log"]["size_bytes"].get<std::uintmax_t>(), 0u);
    EXPECT_LE(s["log"]["size_bytes"].get<std::uintmax_t>(), fs::file_size(root(kLog)));
    EXPECT_EQ(s["log"]["guid"], text.substr(guid, text.find(';', guid) - guid));
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
    EXPECT_TRUE(has(out, "joulix is running: pid " + std::to_string(daemon->pid()))) << out;

    daemon->signal(SIGTERM);
    EXPECT_TRUE(notify.waitFor("STOPPING=1"));
    EXPECT_EQ(daemon->wait(10), 0);
    EXPECT_TRUE(has(logText(), "[Log] state=stopping; reason=SIGTERM;"));

    // Nobody answers now: the convention for "not running", at once.
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(ctl({"status"}, nullptr, &err), 3);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_TRUE(has(err, "joulix is not running")) << err;
}

// Both tools answer -h, --version and --root=DIR, and a usage error is one line with status 2.
TEST_F(ServiceTest, CommandLinesAnswerLikeTheToolsPeopleKnow) {
    struct Case {
        std::string tool;
        std::vector<std::string> args;
        const char* out;       // in standard output; none: a usage error
        std::string err = "";  // the whole of standard error but "; see TOOL --help"
    } cases[] = {
        {"joulixctl", {"--version"}, "joulixctl 6.01 (commit "},
        {"joulixctl", {"-h"}, "usage: joulixctl"},
        {"joulixctl", {"bogus"}, nullptr, "unknown command 'bogus'"},
        {"joulixctl", {"--bogus"}, nullptr, "unknown option '--bogus'"},
        {"joulixctl", {"status", "--yaml"}, nullptr, "status takes only --json, not '--yaml'"},
        {"joulix", {"--version"}, "joulix 6.01 (commit "},
        {"joulix", {"--help"}, "usage: joulix"},
        {"joulix", {"--bogus"}, nullptr, "unknown option '--bogus'"},
        {"joulix", {"--once", "--stdout"}, nullptr, "--once and --stdout exclude each other"},
        {"joulix", {"--root"}, nullptr, "option '--root' needs a value"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tool + " " + c.args[0]);
        std::vector<std::string> argv{binary(c.tool)};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Process p(argv, out("cli"), env);
        EXPECT_EQ(p.wait(), c.out ? 0 : 2);
        EXPECT_TRUE(c.out ? has(p.out(), c.out) : p.out().empty()) << p.out();
        EXPECT_EQ(p.err(), c.out ? "" : c.tool + ": " + c.err + "; see " + c.tool + " --help\n");
    }
    // --root=DIR as well as --root DIR.
    Process p({binary("joulixctl"), "--root=" + root.path(), "defaults", "write", "JXRunLoopDebug", "-bool", "YES"},
              out("cli"), env);
    EXPECT_EQ(p.wait(), 0) << p.err();
    EXPECT_TRUE(fs::exists(root(kPrefs)));
}

}  // namespace
