#include "tests/support/TestSupport.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "defaults/JXDefaults.h"
#include "platform/Root.h"

namespace jxtest {

namespace {
std::string madeTemporaryDirectory(const char* name) {
    std::string tmpl = (std::filesystem::temp_directory_path() / name).string();
    return mkdtemp(tmpl.data());
}
}  // namespace

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

TestRoot::TestRoot() : path_(madeTemporaryDirectory("joulix-test-XXXXXX")) {
    jx::setRoot(path_);
    JXDefaultsResetManagedCacheForTesting();
}

TestRoot::~TestRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
    JXDefaultsResetManagedCacheForTesting();
}

std::string TestRoot::operator()(const std::string& absolute) const { return path_ + absolute; }

void TestRoot::writeFile(const std::string& absolute, const std::string& contents) const {
    std::filesystem::path p = (*this)(absolute);
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << contents;
}

std::string TestRoot::readFile(const std::string& absolute) const { return slurp((*this)(absolute)); }

LogCapture::LogCapture() { jx::setLogSink(this); }
LogCapture::~LogCapture() { jx::setLogSink(nullptr); }

void LogCapture::message(int, std::string_view text) {
    std::lock_guard lock(mutex_);
    messages_.emplace_back(text);
}

std::vector<std::string> LogCapture::messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

bool LogCapture::contains(const std::string& text) const { return count(text) > 0; }

std::size_t LogCapture::count(const std::string& text) const {
    auto all = messages();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
}

std::size_t LogCapture::countContaining(const std::string& text) const {
    std::size_t n = 0;
    for (auto& m : messages()) n += m.find(text) != std::string::npos;
    return n;
}

FakeClock::FakeClock() { jx::Clock::setCurrent(this); }
FakeClock::~FakeClock() { jx::Clock::setCurrent(nullptr); }

jx::Date FakeClock::now() {
    std::lock_guard lock(mutex_);
    return now_;
}
void FakeClock::sleepSeconds(unsigned seconds) {
    std::lock_guard lock(mutex_);
    sleeps_.push_back(seconds * 1000000ULL);
    now_.secondsSince1970 += seconds;
}

void FakeClock::sleepMicroseconds(std::uint64_t us) {
    // A real pause, short, so that work on other threads can go on.
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::lock_guard lock(mutex_);
    sleeps_.push_back(us);
    now_.secondsSince1970 += us / 1e6;
}

void FakeClock::setNow(jx::Date d) {
    std::lock_guard lock(mutex_);
    now_ = d;
}
double FakeClock::suspendedSeconds() {
    std::lock_guard lock(mutex_);
    return suspended_;
}
void FakeClock::suspend(double seconds) {
    std::lock_guard lock(mutex_);
    now_.secondsSince1970 += seconds;
    suspended_ += seconds;
}
std::vector<std::uint64_t> FakeClock::sleepsMicroseconds() const {
    std::lock_guard lock(mutex_);
    return sleeps_;
}

std::string installBundle(const TestRoot& root, const std::string& built, const std::string& as, mode_t mode) {
    const std::string dir = root("/System/Library/JoulixPlugins");
    std::filesystem::create_directories(dir);
    chmod(dir.c_str(), 0755);
    const std::string path = dir + "/" + as;
    std::filesystem::copy_file(std::string(JOULIX_BUNDLE_DIR "/") + built, path,
                               std::filesystem::copy_options::overwrite_existing);
    chmod(path.c_str(), mode);
    return path;
}

const char kVictimBytes[] = "a file only root may read or write\n";

Victim::Victim() : dir_(madeTemporaryDirectory("joulix-victim-XXXXXX")), path_(dir_ + "/secret") {
    std::ofstream(path_, std::ios::binary) << kVictimBytes;
    ::chmod(path_.c_str(), 0600);
    ::stat(path_.c_str(), &made_);
}

Victim::~Victim() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

std::string Victim::changed() const {
    struct stat now {};
    if (::lstat(path_.c_str(), &now) != 0) return "it is gone";
    std::string what;
    if (slurp(path_) != kVictimBytes) what += "bytes ";
    if (now.st_uid != made_.st_uid || now.st_gid != made_.st_gid) what += "owner ";
    if (now.st_mode != made_.st_mode) what += "mode ";
    if (now.st_mtim.tv_sec != made_.st_mtim.tv_sec || now.st_mtim.tv_nsec != made_.st_mtim.tv_nsec) what += "mtime ";
    if (::listxattr(path_.c_str(), nullptr, 0) > 0) what += "xattr ";
    return what;
}

void plantLink(const std::string& target, const std::string& path) {
    const std::string dir = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(dir);
    std::error_code ec;
    std::filesystem::remove(path, ec);
    if (::geteuid() != 0) {
        std::filesystem::create_symlink(target, path);
        return;
    }
    const uid_t nobody = 65534;
    ASSERT_EQ(::chown(dir.c_str(), nobody, nobody), 0) << dir;
    // The way down must be open to the account (a test root is made for its owner only).
    for (std::filesystem::path up = dir; up != up.parent_path(); up = up.parent_path()) {
        struct stat st {};
        if (::stat(up.c_str(), &st) == 0 && !(st.st_mode & S_IXOTH))
            ::chmod(up.c_str(), (st.st_mode & 07777) | S_IXOTH);
    }
    pid_t child = ::fork();
    if (child == 0) {
        // Only system calls here: the child of a threaded process.
        bool ok = ::setgroups(0, nullptr) == 0 && ::setresgid(nobody, nobody, nobody) == 0 &&
                  ::setresuid(nobody, nobody, nobody) == 0 && ::symlink(target.c_str(), path.c_str()) == 0;
        ::_exit(ok ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "nobody could not plant a link at " << path;
}

ZoneScope::ZoneScope(const char* zone) {
    if (const char* tz = std::getenv("TZ")) saved = tz;
    setenv("TZ", zone, 1);
    tzset();
}

ZoneScope::~ZoneScope() {
    if (saved)
        setenv("TZ", saved->c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

std::size_t occurrences(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

bool waitFor(const std::function<bool()>& condition, double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace jxtest
