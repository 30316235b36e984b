// RAPL energy counters from a fake sysfs: energy over each interval, wraps, and
// counters that go back without one.
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"

namespace {

class PowercapLoggerTest : public LoggerTree {
protected:
    void zone(const std::string& zone, const std::string& name, const std::string& energy, const std::string& range = "") {
        const std::string base = "/sys/class/powercap/" + zone + "/";
        put(base + "name", name + "\n");
        put(base + "energy_uj", energy + "\n");
        if (!range.empty()) put(base + "max_energy_range_uj", range + "\n");
    }
    // "[Powercap] zone=…; name=…; energy_uj=N;" of each line, the interval and power checked apart.
    std::vector<std::string> energies() {
        std::vector<std::string> out;
        for (const std::string& line : lines("Powercap")) {
            const std::size_t interval = line.find(" interval_ms=");
            EXPECT_NE(interval, std::string::npos) << line;
            const double ms = std::stod(line.substr(interval + 13));
            const double uj = std::stod(line.substr(line.find("energy_uj=") + 10));
            const double mw = std::stod(line.substr(line.find("power_mw=") + 9));
            if (ms > 0) {
                EXPECT_NEAR(mw, uj / ms, 0.051) << line;  // µJ per ms is mW, to a tenth
            }
            out.push_back(line.substr(0, interval));
        }
        return out;
    }
    jxtest::FakeClock clock;
    void later(double seconds) { clock.setNow(jx::Date{clock.now().secondsSince1970 + seconds}); }
    std::shared_ptr<JXPowercapLogger> logger = std::make_shared<JXPowercapLogger>(sys());
};

TEST_F(PowercapLoggerTest, EnergyOverEachIntervalAcrossAWrap) {
    put("/sys/class/powercap/intel-rapl/enabled", "1\n");  // the control type: no counter
    zone("intel-rapl:0", "package-0", "4294900000", "4294967295");
    zone("intel-rapl:0:0", "core", "1000", "4294967295");
    logger->log();
    EXPECT_TRUE(lines("Powercap").empty()) << "the first reading only starts the interval";

    zone("intel-rapl:0", "package-0", "100000", "4294967295");  // wrapped
    zone("intel-rapl:0:0", "core", "6000", "4294967295");
    later(60);
    logger->logChanges();
    EXPECT_EQ(energies(), (std::vector<std::string>{"[Powercap] zone=intel-rapl:0; name=package-0; energy_uj=167295;",
                                                    "[Powercap] zone=intel-rapl:0:0; name=core; energy_uj=5000;"}));

    // Back without a range to wrap at: not logged as truth, said.
    zone("intel-rapl:0:0", "core", "10", "");
    std::remove((sys() + "/class/powercap/intel-rapl:0:0/max_energy_range_uj").c_str());
    later(60);
    logger->logChanges();
    EXPECT_EQ(energies().size(), 3u);
    EXPECT_EQ(energies().back(), "[Powercap] zone=intel-rapl:0; name=package-0; energy_uj=0;");
    EXPECT_EQ(log.countContaining("JXPowercapLogger: intel-rapl:0:0 went back from 6000 to 10"), 1u);
}

TEST_F(PowercapLoggerTest, NoCounterIsQuiet) {
    logger->log();
    logger->logChanges();
    EXPECT_TRUE(lines("Powercap").empty());
    EXPECT_EQ(log.countContaining("JXPowercapLogger: no energy counter under"), 1u);
}

}  // namespace
