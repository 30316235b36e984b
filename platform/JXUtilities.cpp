#include "platform/JXUtilities.h"

#include <fcntl.h>
#include <pwd.h>
#include <systemd/sd-id128.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <map>
#include <mutex>
#include <cstring>

#include "platform/JXEntry.h"
#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"
#include "platform/NotificationCenter.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"

namespace {

// The library's shared state, never destroyed: queue threads and the signal thread
// may still read it while the process exits.
struct SharedState {
    std::mutex mutex;
    std::shared_ptr<jx::RunLoop> runLoop;
    std::thread::id runThread;
    std::shared_ptr<JXEntry> loggerList;
    std::optional<std::string> processNameOverride;
    JXUtilities::TimeSnapshot snapshot;
};
SharedState& state() {
    static SharedState* s = new SharedState;
    return *s;
}

std::string unquote(std::string v) {
    if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
        v = v.substr(1, v.size() - 2);
    return v;
}

// VERSION_ID of an os-release file, else its BUILD_ID, else its ID; empty when none.
std::string osReleaseVersion(const std::string& path) {
    std::ifstream in(path);
    if (!in) return {};
    std::string line, version, build, id;
    while (std::getline(in, line)) {
        auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq), value = unquote(line.substr(eq + 1));
        if (key == "VERSION_ID") version = value;
        else if (key == "BUILD_ID") build = value;
        else if (key == "ID") id = value;
    }
    if (!version.empty()) return version;
    if (!build.empty()) return build;
    return id;
}
}  // namespace

std::string JXUtilities::runningAsUser() {
    // Asked on every settings read: the name is looked up once per user id.
    static std::mutex cacheMutex;
    static uid_t cachedUid = static_cast<uid_t>(-1);
    static std::string cachedName;
    const uid_t uid = geteuid();
    {
        std::lock_guard lock(cacheMutex);
        if (uid == cachedUid) return cachedName;
    }
    std::string name = lookUpUserName(uid);
    std::lock_guard lock(cacheMutex);
    cachedUid = uid;
    cachedName = name;
    return name;
}

std::string JXUtilities::lookUpUserName(uid_t uid) {
    struct passwd pw {};
    struct passwd* result = nullptr;
    char buf[4096];
    if (getpwuid_r(uid, &pw, buf, sizeof buf, &result) == 0 && result) return result->pw_name;
    return std::to_string(uid);
}

std::string JXUtilities::processName() {
    {
        std::lock_guard lock(state().mutex);
        if (state().processNameOverride) return *state().processNameOverride;
    }
    return program_invocation_short_name;
}

void JXUtilities::setProcessNameForTesting(std::optional<std::string> name) {
    std::lock_guard lock(state().mutex);
    state().processNameOverride = std::move(name);
}

std::string JXUtilities::UUIDString() {
    // The kernel's random source, made a version-4 UUID: two logs must never share an
    // identifier, which a generator seeded from one 32-bit value cannot promise.
    sd_id128_t id{};
    if (int r = sd_id128_randomize(&id); r < 0) {
        jx::systemLogf(jx::kLogError, "no random identifier: %s", std::strerror(-r));
        return "00000000-0000-4000-8000-000000000000";
    }
    char buf[40];
    const std::uint8_t* b = id.bytes;
    std::snprintf(buf, sizeof buf, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1], b[2],
                  b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return buf;
}

std::string JXUtilities::buildVersion() {
    std::string version = osReleaseVersion(jx::rootPath("/etc/os-release"));
    if (version.empty() && jx::root() != "/") version = osReleaseVersion("/etc/os-release");
    if (version.empty()) version = osReleaseVersion("/usr/lib/os-release");
    if (version.empty()) version = "unknown";
    struct utsname u {};
    std::string kernel = uname(&u) == 0 ? u.release : "unknown";
    std::string build = version + " (" + kernel + ")";
    // The header's fields end at ";": keep it out of the build text.
    std::replace(build.begin(), build.end(), ';', ',');
    std::replace(build.begin(), build.end(), '\n', ' ');
    return build;
}

void JXUtilities::chownToMobile(const std::string& path) {
    std::optional<jx::Owner> owner = jx::mobileOwner();
    if (!owner) return;
    // Relative to a directory reached through no link, and never following the name
    // itself: a link planted there must not hand its target to the account.
    std::optional<jx::TreeEntry> at = jx::openParentOf(path);
    if (!at) return;
    int ignored = ::fchownat(at->dir.get(), at->name.c_str(), owner->uid, owner->gid, AT_SYMLINK_NOFOLLOW);
    (void)ignored;
}

bool JXUtilities::internalBuild() {
    std::ifstream in(jx::rootPath("/etc/os-release"));
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VARIANT_ID=", 0) == 0) return unquote(line.substr(11)) == "internal";
    return false;
}

std::string JXUtilities::deviceName() {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || !host[0]) return "localhost";
    return host;
}

jx::SerialQueue& JXUtilities::sharedDispatchQueue() {
    static jx::SerialQueue* q = new jx::SerialQueue("com.brindle.joulix.shared");
    return *q;
}

jx::SerialQueue& JXUtilities::loggerListDispatchQueue() {
    static jx::SerialQueue* q = new jx::SerialQueue("com.brindle.joulix.loggerList");
    return *q;
}

jx::SerialQueue& JXUtilities::mainQueue() {
    static jx::SerialQueue* q = new jx::SerialQueue("com.brindle.joulix.main");
    return *q;
}

jx::SerialQueue& JXUtilities::getQueueForLogger(const JXLoggerClass& loggerClass) {
    return getQueueForLoggerNamed(loggerClass.name());
}

jx::SerialQueue& JXUtilities::getQueueForLoggerNamed(const std::string& name) {
    // Never destroyed, like the other shared queues: a logger may still be logging
    // on its queue while the process ends.
    static std::mutex* mutex = new std::mutex;
    static auto* queues = new std::map<std::string, std::unique_ptr<jx::SerialQueue>>;
    std::lock_guard lock(*mutex);
    auto& q = (*queues)[name];
    if (!q) q = std::make_unique<jx::SerialQueue>("com.brindle.joulix.logger." + name);
    return *q;
}

void JXUtilities::setSharedJXRunLoop(std::shared_ptr<jx::RunLoop> loop) {
    // The shared loop always holds the port through which other threads hand it
    // work (notification callbacks, stop requests), so it is never without a source.
    if (loop) loop->setKeepAlive(true);
    std::lock_guard lock(state().mutex);
    state().runLoop = std::move(loop);
}

std::shared_ptr<jx::RunLoop> JXUtilities::sharedJXRunLoop() {
    std::lock_guard lock(state().mutex);
    return state().runLoop;
}

void JXUtilities::setSharedJXThread(std::thread::id thread) {
    std::lock_guard lock(state().mutex);
    state().runThread = thread;
}

std::thread::id JXUtilities::sharedJXThread() {
    std::lock_guard lock(state().mutex);
    return state().runThread;
}

void JXUtilities::sharedTimeSnapshotInit() {
    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    std::lock_guard lock(state().mutex);
    state().snapshot.wallClock = jx::Date::now();
    state().snapshot.monotonicSeconds = static_cast<double>(mono.tv_sec) + mono.tv_nsec / 1e9;
}

JXUtilities::TimeSnapshot JXUtilities::sharedTimeSnapshot() {
    std::lock_guard lock(state().mutex);
    return state().snapshot;
}

void JXUtilities::linkLoggerList(std::shared_ptr<JXEntry> list) {
    std::lock_guard lock(state().mutex);
    state().loggerList = std::move(list);
}

std::shared_ptr<JXLogger> JXUtilities::getLoggerForName(const std::string& name) {
    std::shared_ptr<JXEntry> list;
    {
        std::lock_guard lock(state().mutex);
        list = state().loggerList;
    }
    if (!list) return nullptr;
    auto v = list->objectForKey(name);
    if (!v || JXNull::isNull(v->object())) return nullptr;
    return std::dynamic_pointer_cast<JXLogger>(v->object());
}

void JXUtilities::postNotificationName(const std::string& name, const void* object, const jx::Value& userInfo) {
    jx::NotificationCenter::defaultCenter().post(name, object, userInfo);
}
