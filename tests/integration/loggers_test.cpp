// The built-in loggers in the real daemon, reading this machine's own kernel files.
#include <gtest/gtest.h>

#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::binary;
using jxtest::Process;

TEST(LoggersIntegrationTest, OnceWritesTheBuiltInLoggersEntriesUnderAPrivateRoot) {
    jxtest::TestRoot root;
    Process p({binary("joulix"), "--root", root.path(), "--log-stderr", "--once"}, root.path() + "/joulix",
              {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/joulix-bus"}});
    ASSERT_EQ(p.wait(), 0) << p.err();
    const std::string log = root.readFile("/var/mobile/Library/Logs/CurrentJoulix.joulix");
    EXPECT_EQ(log.find("[Joulix] Version="), 24u) << log;
    for (const char* entry :
         {"[Config] ", "[Locale] locale=", "[Settings] loggingMode=", "[Process] pid=", "[Network] interface=lo;"})
        EXPECT_NE(log.find(entry), std::string::npos) << entry << "\n" << log;
    for (const char* logger :
         {"JXConfigLogger", "JXLocaleLogger", "JXSettingsLogger", "JXProcessMonitorLogger", "JXNetworkLogger"}) {
        EXPECT_NE(p.err().find(std::string("setting up core logger ") + logger), std::string::npos) << logger;
        EXPECT_EQ(p.err().find(std::string("Could not find ") + logger), std::string::npos) << logger;
    }
}

}  // namespace
