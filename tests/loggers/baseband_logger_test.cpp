// The modem's sleep from fake debugfs statistics and runtime-PM figures, and
// what the post-processor makes of the lines.
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"
#include "tests/loggers/PostProcessorPatterns.h"

namespace {

// Time since boot and the always-on counter, moved by the test.
struct FakeClock : JXBasebandLogger::Clock {
    double seconds = 1000;
    std::optional<unsigned long long> ticks;
    double secondsSinceBoot() const override { return seconds; }
    std::optional<unsigned long long> counterTicks() const override { return ticks; }
    std::optional<double> counterFrequency() const override { return std::nullopt; }
};

constexpr unsigned long long kRate = 19200000;  // the default rate: no setting, no counter

class BasebandLoggerTest : public LoggerTree {
protected:
    std::string debug() const { return root.path() + "/debug"; }
    // A statistics file as the drivers print it: seconds in the mode, in ticks.
    void stat(const std::string& file, unsigned count, double seconds, unsigned long long entered = 0,
              unsigned long long exited = 0) {
        root.writeFile("/debug/sleep_stats/" + file,
                       "Count: " + std::to_string(count) + "\nLast Entered At: " + std::to_string(entered) +
                           "\nLast Exited At: " + std::to_string(exited) + "\nAccumulated Duration: " +
                           std::to_string(static_cast<unsigned long long>(seconds * kRate)) + "\n");
    }
    void device(const std::string& path, const char* control, long long activeMs, long long suspendedMs) {
        put(path + "/control", std::string(control) + "\n");
        put(path + "/runtime_active_time", std::to_string(activeMs) + "\n");
        put(path + "/runtime_suspended_time", std::to_string(suspendedMs) + "\n");
    }
    // Every line written with a "[BB HW" tag, time stamps included.
    std::vector<std::string> bbLines() {
        std::vector<std::string> out;
        std::istringstream in(text());
        for (std::string line; std::getline(in, line);)
            if (line.find(" [BB HW ") != std::string::npos) out.push_back(line);
        return out;
    }
    static std::vector<std::string> bodies(const std::vector<std::string>& stamped) {
        std::vector<std::string> out;
        for (const std::string& line : stamped) out.push_back(line.substr(24));
        return out;
    }

    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    std::shared_ptr<JXBasebandLogger> logger = std::make_shared<JXBasebandLogger>(sys(), debug(), clock);
    PostProcessorPatterns patterns;
};

TEST_F(BasebandLoggerTest, WritesEachIntervalAsTheLinesThePostProcessorAssemblesIntoOneSample) {
    root.writeFile("/debug/other/modem", "not statistics\n");  // found by content, not by name
    stat("vlow", 10, 100);
    stat("vmin", 4, 50);
    stat("apss", 20, 300);
    stat("modem", 7, 400);
    stat("cdsp", 1, 1);  // a subsystem the log has no line for
    device("/sys/bus/usb/devices/usb1/power", "auto", 1000, 5000);
    device("/sys/bus/usb/devices/1-1/power", "auto", 2000, 0);
    device("/sys/bus/usb/devices/usb2/power", "on", 0, 0);  // forced on: not counted
    device("/sys/bus/spi/devices/spi0.0/power", "auto", 0, 0);
    logger->loggerSerialQueue().sync([&] { logger->log(); });
    EXPECT_TRUE(bbLines().empty()) << "the first sample is the starting point";
    EXPECT_EQ(logger->samplePeriod(), 60);

    clock->seconds += 60;
    stat("vlow", 13, 100 + 15);  // 25 % in crystal shutdown
    stat("vmin", 5, 50 + 30);    // 50 % at minimum voltage
    stat("apss", 26, 300 + 48);  // 80 % of the application processors asleep
    stat("modem", 9, 400 + 57);
    device("/sys/bus/usb/devices/usb1/power", "auto", 1000 + 6000, 5000 + 54000);  // 10 %
    device("/sys/bus/usb/devices/1-1/power", "auto", 2000 + 3000, 0);
    device("/sys/bus/usb/devices/usb2/power", "on", 60000, 0);
    device("/sys/bus/spi/devices/spi0.0/power", "auto", 45000, 0);  // 75 %
    logger->loggerSerialQueue().sync([&] { logger->logChanges(); });

    const std::vector<std::string> lines = bbLines();
    EXPECT_EQ(bodies(lines), (std::vector<std::string>{
                                 "[BB HW Log] Duration=60.000;",
                                 "[BB HW RPM] XO_Shutdown=[25.00%,3]; VDD_Min=[50.00%,1];",
                                 "[BB HW APPS] CXO_Shutdown=[80.00%,6];",
                                 "[BB HW MPSS] CXO_Shutdown=[95.00%,2];",
                                 "[BB HW Peripherals] USB=[6000,54000,10.00%]; SPI=[45000,75.00%]; UART=[0,0.00%]; "
                                 "GPS=[0,0.00%]; GPS_DPO=[0,0.00%];",
                             }));
    ASSERT_EQ(lines.size(), 5u);
    const char* rows[] = {"ARMUtilityDuration", "ARMUtilityValues", "APPSValue", "MPSSValue", "Peripherals"};
    for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(patterns.rowFor(lines[i]), rows[i]) << lines[i];
    // The ARM utility is what is left after both deep modes; the sample is assembled at the peripherals' line.
    EXPECT_EQ(patterns.eventsFor(lines),
              (std::vector<std::string>{"MPSSUtility=5;MPSSUtilityDuration=60.000000;",
                                        "ARMUtility=25.000000;ARMUtilityDuration=60.000000;APPSValue=20.000000;"
                                        "PERIPHERALSValue=75.000000;"}));
    EXPECT_EQ(log.countContaining("JXBasebandLogger"), 0u);
}

TEST_F(BasebandLoggerTest, CountsAStayInAModeThatHasNotEndedAndAResetCounterFromZero) {
    setLoggerSetting("JXBasebandLogger", "TicksPerSecond", jx::Value(std::string("19200000")));
    clock->ticks = 1000 * kRate;
    stat("modem", 5, 100, /*entered*/ 990 * kRate, /*exited*/ 980 * kRate);  // asleep for 10 s so far
    stat("vlow", 10, 100);
    logger->loggerSerialQueue().sync([&] { logger->log(); });
    clock->seconds += 100;
    *clock->ticks += 100 * kRate;  // still asleep: the whole interval
    stat("vlow", 2, 30);           // the counters started again
    logger->loggerSerialQueue().sync([&] { logger->logChanges(); });
    EXPECT_EQ(bodies(bbLines()),
              (std::vector<std::string>{"[BB HW Log] Duration=100.000;", "[BB HW MPSS] CXO_Shutdown=[100.00%,0];",
                                        "[BB HW Peripherals] USB=[0,0,0.00%]; SPI=[0,0.00%]; UART=[0,0.00%]; "
                                        "GPS=[0,0.00%]; GPS_DPO=[0,0.00%];"}))
        << "no RPM line without both deep modes";
}

TEST_F(BasebandLoggerTest, QuietWithoutStatisticsAndNoTimer) {
    root.writeFile("/debug/tracing/README", "x\n");
    logger->loggerSerialQueue().sync([&] {
        logger->log();
        logger->log();
    });
    EXPECT_EQ(logger->samplePeriod(), 0);
    EXPECT_TRUE(bbLines().empty());
    EXPECT_EQ(log.countContaining("JXBasebandLogger: no modem sleep statistics"), 1u);
}

}  // namespace
