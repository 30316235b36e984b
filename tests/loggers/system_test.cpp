// The configuration and settings entries, and the process and network
// entries from a fake /proc.
#include <unistd.h>

#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "tests/loggers/LoggerTree.h"

using ConfigLoggerTest = LoggerTree;

TEST_F(ConfigLoggerTest, DescribesTheDeviceFromItsKernelFiles) {
    JXConfigLogger logger(sys(), proc(), etc());
    files("/proc",
          "meminfo=MemTotal:        3984412 kB\nMemFree:          123456 kB; sys/kernel/osrelease=6.1.0-27-arm64; "
          "sys/kernel/version=#1 SMP Debian 6.1.115-1; cpuinfo=processor\t: 0\nmodel name\t: Quartz Q9 @ "
          "2.0GHz\nflags\t\t: fpu\n\nprocessor\t: 1\nmodel name\t: Quartz Q9 @ 2.0GHz\nflags\t\t: fpu");
    put("/etc/os-release",
        "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\n");
    EXPECT_EQ(trigger(logger, "/sys/class/dmi/id", "product_name=Brick 14; sys_vendor=Stonework"),
              Lines{"[Config] model=Brick 14; vendor=Stonework; kernel=6.1.0-27-arm64; kernel_version=#1 SMP Debian "
                    "6.1.115-1; os=Debian GNU/Linux 12 (bookworm); os_build=12; cpu=Quartz Q9 @ 2.0GHz; cpu_count=2; "
                    "memory_mb=3891;"});
}

TEST_F(ConfigLoggerTest, SettingsInForceAndOfAStuffedDomainTheFirstKeysOnly) {
    JXSettingsLogger logger;
    EXPECT_EQ(trigger(logger), Lines{"[Settings] loggingMode=Lite;"});  // nothing set: only the mode
    // A domain stuffed with keys: read once (the cost was the square of the key count),
    // its first 256 keys shown and the rest counted.
    jx::Dictionary many;
    for (int i = 0; i < 40000; ++i) many[jx::formatString("K%05d", i)] = jx::Value(i);
    const std::string store = jx::preferencesPath(kJXDefaultsDomain, kJXDefaultsUser);
    std::filesystem::create_directories(std::filesystem::path(store).parent_path());
    ASSERT_TRUE(jx::writePropertyListFileAtomically(store, jx::Value(many)));
    const std::string line = trigger(logger).at(0);
    EXPECT_EQ(jxtest::occurrences(line, "; "), 257u) << line.substr(0, 200);  // the mode, 256 keys, the count
    EXPECT_NE(line.find("; keysNotShown=39744;"), std::string::npos) << line.substr(line.size() - 200);
}

class ProcessMonitorTest : public LoggerTree {
protected:
    // A /proc/<pid>/stat line with the given times (clock ticks) and start time.
    void process(int pid, const char* name, int user, int system, int start = 100) {
        put(jx::formatString("/proc/%d/stat", pid),
            jx::formatString("%d (%s) S 1 1 1 0 -1 4194560 100 0 0 0 %d %d 0 0 20 0 1 0 %d 1000 50 0\n", pid, name,
                             user, system, start));
    }
    static std::string line(int pid, const std::string& name, int user, int system) {
        auto ms = [](int ticks) { return std::to_string(ticks * 1000L / ::sysconf(_SC_CLK_TCK)); };
        return "[Process] pid=" + std::to_string(pid) + "; name=" + name + "; cpu_ms=" + ms(user + system) +
               "; user_ms=" + ms(user) + "; system_ms=" + ms(system) + ";";
    }
    JXProcessMonitorLogger logger{proc()};
};

// The first sample charges everything used so far, largest first; later ones only
// what was used since.
TEST_F(ProcessMonitorTest, TheFirstSampleChargesEverythingSoFarAndLaterOnesWhatWasUsedSince) {
    process(1, "init", 10, 20);
    process(42, "a (weird) name", 300, 100);
    process(50, "gone", 0, 0);
    process(60, "reused", 7, 0, 100);
    put("/proc/self/stat", "not a process directory");
    put("/proc/loadavg", "0.1 0.2 0.3 1/100 4242\n");
    EXPECT_EQ(trigger(logger),
              (Lines{line(42, "a (weird) name", 300, 100), line(1, "init", 10, 20), line(60, "reused", 7, 0)}));
    process(1, "init", 110, 20);  // 100 more; 42 nothing more: not listed
    std::filesystem::remove_all(root("/proc/50"));
    process(60, "reused", 3, 1, 900);  // a new process with an old pid: all it used
    process(70, "newcomer", 2, 2);
    EXPECT_EQ(tick(logger), (Lines{line(1, "init", 100, 0), line(60, "reused", 3, 1), line(70, "newcomer", 2, 2)}));
}

// Wake-ups (context switches), and a name longer than the
// kernel's 15 characters: the unit the process runs in and its command line.
TEST_F(ProcessMonitorTest, ContextSwitchesUnitAndCommandLine) {
    process(42, "gnome-shell-cal", 100, 0);
    put("/proc/42/cgroup", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/evolution-calendar.service\n");
    put("/proc/42/cmdline", std::string("/usr/libexec/gnome-shell-calendar-server\0--replace\0", 51));
    const std::string status = "status=Name:\tgnome-shell-cal\nvoluntary_ctxt_switches:\t";
    const std::string tail =
        " unit=evolution-calendar.service; command=/usr/libexec/gnome-shell-calendar-server --replace;";
    EXPECT_EQ(trigger(logger, "/proc/42", status + "900\nnonvoluntary_ctxt_switches:\t100"),
              Lines{line(42, "gnome-shell-cal", 100, 0) + " ctx_switches=1000;" + tail});
}

TEST_F(ProcessMonitorTest, ATriggeredNetworkSampleGivesEveryInterfaceAndATickOnlyThoseThatMoved) {
    JXNetworkLogger network(proc());
    const std::string dev =
        "net/dev=Inter-|   Receive |  Transmit\n face |bytes packets errs|bytes packets errs\n"
        "    lo: 6534 58 0 0 0 0 0 0 6534 58 0 0 0 0 0 0\n  eth0: 19156292 513 2 0 0 0 0 0 ";
    EXPECT_EQ(trigger(network, "/proc", dev + "34692 411 0 1 0 0 0 0").at(0),
              "[Network] interface=eth0; rx_bytes=19156292; rx_packets=513; tx_bytes=34692; tx_packets=411; "
              "rx_errors=2; tx_errors=0;");
    EXPECT_EQ(tick(network, "/proc", dev + "40000 411 0 1 0 0 0 0").size(), 1u) << "lo did not move";
}
