#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/JXEntry.h"
#include "platform/JXLogger.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "tests/support/TestSupport.h"

namespace {

std::string kernelRelease() {
    struct utsname u {};
    return uname(&u) == 0 ? u.release : "unknown";
}

TEST(JXUtilities, UUIDsAreVersionFourUppercaseAndUnique) {
    std::mutex mutex;
    std::set<std::string> seen;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                std::string u = JXUtilities::UUIDString();
                std::lock_guard lock(mutex);
                seen.insert(u);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(seen.size(), 2000u);
    // Uppercase hex in groups of 8-4-4-4-12, version 4, variant 10xx.
    const std::string form = "XXXXXXXX-XXXX-4XXX-VXXX-XXXXXXXXXXXX";
    for (const auto& u : seen) {
        ASSERT_EQ(u.size(), form.size()) << u;
        for (std::size_t i = 0; i < form.size(); ++i) {
            const char* allowed = form[i] == 'X' ? "0123456789ABCDEF" : form[i] == 'V' ? "89AB" : nullptr;
            ASSERT_TRUE(allowed ? std::strchr(allowed, u[i]) != nullptr : u[i] == form[i]) << u;
        }
    }
}

TEST(JXUtilities, BuildVersionComesFromTheRootsOsRelease) {
    jxtest::TestRoot root;
    const std::string kernel = " (" + kernelRelease() + ")";
    struct {
        const char* osRelease;
        const char* version;
    } cases[] = {
        {"NAME=\"Some OS\"\nVERSION_ID=\"12.4\"\nID=debian\n", "12.4"},
        {"VERSION_ID=7\n", "7"},
        {"VERSION_ID='3.1'\nBUILD_ID=x", "3.1"},
        {"ID=rolling\nBUILD_ID=20260101\n", "20260101"},
        {"ID=\"minimal\"\n", "minimal"},
        {"VERSION_ID=\"1;2\"\n", "1,2"},
        {"# comment\n\nVERSION_ID=\"\"\nID=plain", "plain"},
    };
    for (auto& c : cases) {
        root.writeFile("/etc/os-release", c.osRelease);
        std::string build = JXUtilities::buildVersion();
        EXPECT_EQ(build, c.version + kernel) << c.osRelease;
        EXPECT_EQ(build.find(';'), std::string::npos);
    }
}

class NamedLogger : public JXLogger {
public:
    using JXLogger::JXLogger;

protected:
    void logSample() override {}
};

TEST(JXUtilities, LoggerLookupGoesThroughTheLinkedList) {
    EXPECT_EQ(JXUtilities::getLoggerForName("JXBatteryLogger"), nullptr);  // nothing linked
    auto battery = std::make_shared<NamedLogger>("JXBatteryLogger");
    auto list = std::make_shared<JXEntry>("Loggers");
    list->setObject(JXValue::valueWithObject(battery), "JXBatteryLogger");
    list->setObject(JXValue::valueWithObject(JXNull::null()), "JXCameraLogger");
    list->setObject(JXValue::valueWithObject(std::make_shared<JXEntry>("NotALogger")), "JXOddLogger");
    JXUtilities::linkLoggerList(list);

    EXPECT_EQ(JXUtilities::getLoggerForName("JXBatteryLogger"), battery);
    for (const char* other : {"JXCameraLogger", "JXOddLogger", "JXMissingLogger"})
        EXPECT_EQ(JXUtilities::getLoggerForName(other), nullptr) << other;

    JXUtilities::linkLoggerList(nullptr);
    EXPECT_EQ(JXUtilities::getLoggerForName("JXBatteryLogger"), nullptr);
}

TEST(JXUtilities, TheSharedRunLoopIsKeptAlive) {
    auto previous = JXUtilities::sharedJXRunLoop();
    auto loop = std::make_shared<jx::RunLoop>();
    EXPECT_EQ(loop->runUntilSourceHandled(0), jx::RunLoop::Result::Finished);
    JXUtilities::setSharedJXRunLoop(loop);
    // Other threads may hand it work at any time, so an empty turn waits instead of finishing.
    EXPECT_EQ(loop->runUntilSourceHandled(0), jx::RunLoop::Result::TimedOut);
    JXUtilities::setSharedJXRunLoop(previous);
}

TEST(Root, PathsLieUnderTheRoot) {
    const std::string saved = jx::root();
    struct {
        const char* root;
        const char* normalised;
        const char* path;
        const char* expected;
    } cases[] = {
        {"/", "/", "/etc/os-release", "/etc/os-release"},
        {"///", "/", "/var/mobile", "/var/mobile"},
        {"", "/", "/var/mobile", "/var/mobile"},
        {"/tmp/r", "/tmp/r", "/etc/os-release", "/tmp/r/etc/os-release"},
        {"/tmp/r//", "/tmp/r", "/etc/os-release", "/tmp/r/etc/os-release"},
        {"/tmp/r/", "/tmp/r", "relative/x", "/tmp/r/relative/x"},
        {"/tmp/r", "/tmp/r", "/", "/tmp/r/"},
    };
    for (auto& c : cases) {
        jx::setRoot(c.root);
        EXPECT_EQ(jx::root(), c.normalised) << '"' << c.root << '"';
        EXPECT_EQ(jx::rootPath(c.path), c.expected) << '"' << c.root << "\" " << c.path;
    }
    jx::setRoot(saved);
}

}  // namespace
