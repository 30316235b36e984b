// The process and network entries from a fake /proc.
#include <unistd.h>

#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"

namespace {

class ProcessMonitorTest : public LoggerTree {
protected:
    // A /proc/<pid>/stat line with the given times (clock ticks) and start time.
    void process(int pid, const std::string& name, int user, int system, int start = 100) {
        put("/proc/" + std::to_string(pid) + "/stat",
            std::to_string(pid) + " (" + name + ") S 1 1 1 0 -1 4194560 100 0 0 0 " + std::to_string(user) + " " +
                std::to_string(system) + " 0 0 20 0 1 0 " + std::to_string(start) + " 1000 50 0\n");
    }
    std::string ms(int ticks) const { return std::to_string(ticks * 1000L / ::sysconf(_SC_CLK_TCK)); }
    std::string line(int pid, const std::string& name, int user, int system) const {
        return "[Process] pid=" + std::to_string(pid) + "; name=" + name + "; cpu_ms=" + ms(user + system) +
               "; user_ms=" + ms(user) + "; system_ms=" + ms(system) + ";";
    }
    std::shared_ptr<JXProcessMonitorLogger> logger = std::make_shared<JXProcessMonitorLogger>(proc());
};

TEST_F(ProcessMonitorTest, TheFirstSampleChargesEverythingUsedSoFarLargestFirst) {
    process(1, "init", 10, 20);
    process(42, "a (weird) name", 300, 100);
    process(77, "idle", 0, 0);
    put("/proc/self/stat", "not a process directory");
    put("/proc/loadavg", "0.1 0.2 0.3 1/100 4242\n");
    logger->log();
    EXPECT_EQ(lines("Process"),
              (std::vector<std::string>{line(42, "a (weird) name", 300, 100), line(1, "init", 10, 20)}));
}

// Wake-ups (context switches) since the last sample, and a name longer than the
// kernel's 15 characters: the unit the process runs in and its command line.
TEST_F(ProcessMonitorTest, ContextSwitchesUnitAndCommandLine) {
    process(42, "gnome-shell-cal", 100, 0);
    put("/proc/42/status", "Name:\tgnome-shell-cal\nvoluntary_ctxt_switches:\t900\nnonvoluntary_ctxt_switches:\t100\n");
    put("/proc/42/cgroup", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/evolution-calendar.service\n");
    put("/proc/42/cmdline", std::string("/usr/libexec/gnome-shell-calendar-server\0--replace\0", 51));
    logger->log();
    process(42, "gnome-shell-cal", 150, 0);
    put("/proc/42/status", "voluntary_ctxt_switches:\t1300\nnonvoluntary_ctxt_switches:\t110\n");
    logger->logChanges();
    const std::string tail = " unit=evolution-calendar.service; command=/usr/libexec/gnome-shell-calendar-server --replace;";
    EXPECT_EQ(lines("Process"), (std::vector<std::string>{line(42, "gnome-shell-cal", 100, 0) + " ctx_switches=1000;" + tail,
                                                           line(42, "gnome-shell-cal", 50, 0) + " ctx_switches=410;" + tail}));
}

TEST_F(ProcessMonitorTest, LaterSamplesChargeOnlyWhatWasUsedSince) {
    process(1, "init", 10, 20);
    process(42, "worker", 300, 100);
    process(50, "gone", 5, 5);
    process(60, "reused", 7, 0, 100);
    logger->log();
    written.text();
    const std::size_t before = lines("Process").size();

    process(1, "init", 110, 20);      // 100 more
    process(42, "worker", 300, 100);  // nothing more: not listed
    std::filesystem::remove_all(root("/proc/50"));
    process(60, "reused", 3, 1, 900);  // a new process with an old pid: all it used
    process(70, "newcomer", 2, 2);
    logger->logChanges();
    std::vector<std::string> all = lines("Process");
    std::vector<std::string> second(all.begin() + static_cast<long>(before), all.end());
    EXPECT_EQ(second, (std::vector<std::string>{line(1, "init", 100, 0), line(60, "reused", 3, 1),
                                                line(70, "newcomer", 2, 2)}));
}

TEST_F(ProcessMonitorTest, TopCountLimitsTheEntries) {
    for (int pid = 1; pid <= 9; ++pid) process(pid, "p" + std::to_string(pid), pid, 0);
    setLoggerSetting("JXProcessMonitorLogger", "TopCount", jx::Value(2));
    logger->log();
    EXPECT_EQ(lines("Process"), (std::vector<std::string>{line(9, "p9", 9, 0), line(8, "p8", 8, 0)}));
    setLoggerSetting("JXProcessMonitorLogger", "TopCount", jx::Value(0));  // not a count: the default
    for (int pid = 1; pid <= 9; ++pid) process(pid, "p" + std::to_string(pid), pid + 1, 0);
    logger->logChanges();
    EXPECT_EQ(lines("Process").size(), 2u + 5u);
}

class NetworkLoggerTest : public LoggerTree {
protected:
    void table(long ethRx, long ethTx) {
        put("/proc/net/dev",
            "Inter-|   Receive                                                |  Transmit\n"
            " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
            "carrier compressed\n"
            "    lo:    6534      58    0    0    0     0          0         0     6534      58    0    0    0     0   "
            " "
            "   0          0\n"
            "  eth0: " +
                std::to_string(ethRx) + "     513    2    0    0     0          0         0    " +
                std::to_string(ethTx) + "     411    0    1    0     0       0          0\n");
    }
    std::shared_ptr<JXNetworkLogger> logger = std::make_shared<JXNetworkLogger>(proc());
};

TEST_F(NetworkLoggerTest, ATriggeredSampleGivesEveryInterfaceAndATickOnlyThoseThatMoved) {
    table(19156292, 34692);
    logger->log();
    EXPECT_EQ(lines("Network"),
              (std::vector<std::string>{
                  "[Network] interface=eth0; rx_bytes=19156292; rx_packets=513; tx_bytes=34692; tx_packets=411; "
                  "rx_errors=2; tx_errors=0;",
                  "[Network] interface=lo; rx_bytes=6534; rx_packets=58; tx_bytes=6534; tx_packets=58; "
                  "rx_errors=0; tx_errors=0;"}));
    logger->logChanges();
    EXPECT_EQ(lines("Network").size(), 2u);
    table(19156292, 40000);
    logger->logChanges();
    ASSERT_EQ(lines("Network").size(), 3u);
    EXPECT_EQ(
        lines("Network")[2].rfind("[Network] interface=eth0; rx_bytes=19156292; rx_packets=513; tx_bytes=40000;", 0),
        0u);
    logger->log();
    EXPECT_EQ(lines("Network").size(), 5u);
}

}  // namespace
