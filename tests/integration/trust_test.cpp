// Who may steer the running daemon over the bus: root, its own user and the group
// joulix; another local user is kept out by the shipped bus policy and, should
// the bus let it through, by the daemon itself. A flood of status requests is
// folded, and never holds up an exit request.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

#include "platform/NotificationCenter.h"
#include "platform/NotificationNames.h"
#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::occurrences;
using jxtest::Process;
using jxtest::tail;
using jxtest::waitFor;

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";

std::string busConfiguration(bool withPolicy) { return jxtest::openBusConfiguration(withPolicy); }

class TrustTest : public jxtest::BinariesTest {
protected:
    void start(jxtest::PrivateBus& bus) {
        if (!bus.available()) GTEST_SKIP() << "dbus-daemon did not start";
        env["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address();
        auto waiter = std::make_unique<Process>(
            std::vector<std::string>{jxtest::binary("joulixctl"), "--root", root.path(), "wait",
                                     "com.brindle.joulix.StateChanged", "--timeout", "30"},
            out("wait"), env);
        ASSERT_TRUE(waitFor([&] { return waiter->out().find("waiting for") != std::string::npos; })) << waiter->err();
        daemon = joulix();
        ASSERT_EQ(waiter->wait(), 0) << tail(daemon->err());
    }
    // Posts as the user nobody, through the bus's own command-line sender.
    int postAsNobody(const jxtest::PrivateBus& bus, const std::string& name) {
        Process p({"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "/usr/bin/dbus-send",
                   "--bus=" + bus.address(), "--type=signal", "/com/brindle/Notify", "com.brindle.Notify.Post",
                   "string:" + name},
                  out("nobody"), env);
        return p.wait().value_or(-1);
    }
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "posting as another user needs root";
        if (access("/usr/bin/setpriv", X_OK) != 0 || access("/usr/bin/dbus-send", X_OK) != 0)
            GTEST_SKIP() << "setpriv or dbus-send is not installed";
    }
    std::string logText() { return root.readFile(kLog); }

    std::unique_ptr<Process> daemon;
};

TEST_F(TrustTest, OtherUsersCannotSteerTheDaemonThroughTheBusOrPastIt) {
    for (bool withPolicy : {true, false}) {
        SCOPED_TRACE(withPolicy ? "with the shipped policy" : "with a bus that lets every user post");
        jxtest::PrivateBus bus(busConfiguration(withPolicy));
        start(bus);
        if (HasFatalFailure() || IsSkipped()) return;
        for (const char* name : {JXLogStateRequest, JXFirstUnlockNotification, JXExitRequest})
            ASSERT_EQ(postAsNobody(bus, name), 0);
        if (!withPolicy) {
            // Past the bus, the daemon itself refuses: as user 65534, or, when the sender
            // left before the bus could name it (a slow daemon), as a sender not named.
            ASSERT_TRUE(waitFor([&] {
                return daemon->err().find("refused com.brindle.joulix.LogStateRequest from ") != std::string::npos;
            })) << tail(daemon->err());
        }
        // Root still steers it; nothing of nobody's was acted on.
        ASSERT_EQ(ctl({"trigger"}), 0);
        ASSERT_TRUE(waitFor([&] { return occurrences(logText(), "[Log] state=statusRequested;") >= 1; }));
        EXPECT_FALSE(daemon->wait(0.2)) << "nobody's exit request stopped the daemon";
        EXPECT_EQ(occurrences(logText(), "[Log] state=statusRequested;"), 1u);
        EXPECT_EQ(occurrences(logText(), "File Unlocked"), 0u);
        // Said at growing intervals, not once per post.
        if (withPolicy) EXPECT_EQ(occurrences(daemon->err(), "refused "), 0u) << tail(daemon->err());
        else EXPECT_LE(occurrences(daemon->err(), "refused "), 2u) << tail(daemon->err());
        ASSERT_EQ(ctl({"exit"}), 0);
        EXPECT_EQ(daemon->wait(10), 0) << tail(daemon->err());
        std::filesystem::remove(root(kLog));
    }
}

TEST_F(TrustTest, AFloodOfStatusRequestsIsFoldedAndAnExitStillComesAtOnce) {
    jxtest::PrivateBus bus;
    start(bus);
    if (HasFatalFailure() || IsSkipped()) return;
    ASSERT_TRUE(waitFor([&] { return logText().find("[Log] state=booting;") != std::string::npos; }));
    const std::size_t before = logText().size();
    auto& center = jx::SystemNotificationCenter::shared();
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 10000; ++i) ASSERT_TRUE(center.post(JXLogStateRequest));
    ASSERT_TRUE(center.post(JXExitRequest));
    const auto posted = std::chrono::steady_clock::now();
    auto status = daemon->wait(1.0);
    ASSERT_TRUE(status) << "the exit request waited behind the flood: " << tail(daemon->err());
    EXPECT_EQ(*status, 0);
    const double seconds = std::chrono::duration<double>(posted - began).count();
    // One trigger a second at most, plus the first; each writes a state line and the loggers' samples.
    const std::size_t triggers = occurrences(logText(), "[Log] state=statusRequested;");
    EXPECT_GE(triggers, 1u);
    EXPECT_LE(triggers, static_cast<std::size_t>(seconds) + 2) << seconds << " s of posting";
    EXPECT_LT(logText().size() - before, (triggers + 1) * 64 * 1024) << "the log grew with the flood";
}

}  // namespace
