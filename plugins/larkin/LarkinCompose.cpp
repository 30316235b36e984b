// LarkinCompose: the issue-report composer. A report handed to the notifier is
// filed as one JSON file in "var/mobile/Library/Logs/Larkin/" under the root, from
// where the issue tracker's uploader takes it.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/LarkinCompose.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"
#include "platform/TextEncoding.h"
#include "platform/Value.h"

struct LarkinTicketObject {
    std::string title, component, componentVersion, description;
    long classification = 0, reproducibility = 0;
    std::vector<std::string> keywords;
};

namespace {

std::string text(const char* s) { return s ? s : ""; }

// Nothing may be thrown across the C interface: a failure leaves the report as it was.
template <typename F>
void guarded(LarkinTicketObject* t, F f) {
    if (!t) return;
    try {
        f(*t);
    } catch (...) {
    }
}

LarkinTicketObject* create() {
    try {
        return new LarkinTicketObject;
    } catch (...) {
        return nullptr;
    }
}

void release(LarkinTicketObject* t) { delete t; }

void setTitle(LarkinTicketObject* t, const char* v) {
    guarded(t, [&](LarkinTicketObject& o) { o.title = text(v); });
}
void setComponent(LarkinTicketObject* t, const char* v) {
    guarded(t, [&](LarkinTicketObject& o) { o.component = text(v); });
}
void setComponentVersion(LarkinTicketObject* t, const char* v) {
    guarded(t, [&](LarkinTicketObject& o) { o.componentVersion = text(v); });
}
void setClassification(LarkinTicketObject* t, long v) {
    guarded(t, [&](LarkinTicketObject& o) { o.classification = v; });
}
void setReproducibility(LarkinTicketObject* t, long v) {
    guarded(t, [&](LarkinTicketObject& o) { o.reproducibility = v; });
}
void setDescription(LarkinTicketObject* t, const char* v) {
    guarded(t, [&](LarkinTicketObject& o) { o.description = text(v); });
}
void setKeywords(LarkinTicketObject* t, const char* const* keywords, size_t count) {
    guarded(t, [&](LarkinTicketObject& o) {
        o.keywords.clear();
        for (size_t i = 0; keywords && i < count; ++i) o.keywords.push_back(text(keywords[i]));
    });
}

std::string json(const LarkinTicketObject& t) {
    std::string out = "{\"title\":";
    jx::appendJSONString(out, t.title);
    out += ",\"component\":";
    jx::appendJSONString(out, t.component);
    out += ",\"componentVersion\":";
    jx::appendJSONString(out, t.componentVersion);
    out += ",\"classification\":" + std::to_string(t.classification);
    out += ",\"reproducibility\":" + std::to_string(t.reproducibility);
    out += ",\"description\":";
    jx::appendJSONString(out, t.description);
    out += ",\"keywords\":[";
    for (std::size_t i = 0; i < t.keywords.size(); ++i) {
        if (i) out += ',';
        jx::appendJSONString(out, t.keywords[i]);
    }
    return out + "]}\n";
}

bool writeAll(int fd, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Files one report. The file appears whole or not at all: it is written under a
// hidden name and renamed.
int notifyWithLarkin(LarkinNotifier*, const LarkinTicketObject* ticket) {
    if (!ticket) return 0;
    try {
        static std::atomic<unsigned> sequence{0};
        const std::string dir = jx::rootPath("/var/mobile/Library/Logs/Larkin/");
        // Under the logs directory, which "mobile" may write: reached through no link.
        jx::FileDescriptor at = jx::openTreeDirectory(dir, true);
        const long long ms = static_cast<long long>(jx::Date::now().secondsSince1970 * 1000.0);
        const std::string name =
            jx::formatString("LarkinTicket-%lld-%d-%u.json", ms, static_cast<int>(::getpid()), sequence++);
        const std::string hidden = "." + name;
        jx::FileDescriptor fd(at.valid() ? ::openat(at.get(), hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644) : -1);
        if (!fd.valid() || !writeAll(fd.get(), json(*ticket)) || ::fsync(fd.get()) != 0) {
            jx::systemLogf(jx::kLogError, "LarkinCompose: cannot write %s%s: %s", dir.c_str(), hidden.c_str(), std::strerror(errno));
            if (at.valid()) ::unlinkat(at.get(), hidden.c_str(), 0);
            return 0;
        }
        fd.reset();
        if (::renameat(at.get(), hidden.c_str(), at.get(), name.c_str()) != 0) {
            ::unlinkat(at.get(), hidden.c_str(), 0);
            return 0;
        }
        return 1;
    } catch (...) {
        return 0;
    }
}

LarkinNotifier sNotifier = {notifyWithLarkin};

}  // namespace

extern "C" {

__attribute__((visibility("default"))) extern const LarkinTicketClass LarkinTicket;
const LarkinTicketClass LarkinTicket = {
    create,         release,    setTitle, setComponent, setComponentVersion, setClassification, setReproducibility,
    setDescription, setKeywords};

__attribute__((visibility("default"))) LarkinNotifier* get_notifier(void) { return &sNotifier; }
}
