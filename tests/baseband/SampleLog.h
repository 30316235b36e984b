// Power logs for the post-processor's tests: lines as the loggers write them, and
// files whose creation dates are told apart.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>

#include "platform/LogTime.h"
#include "tests/support/TestSupport.h"

namespace jxtest {

// Builds a power log in time order; the clock starts at 11/14/2026 10:00:00 local time.
class SampleLog {
public:
    SampleLog() {
        std::tm tm{};
        strptime("11/14/2026 10:00:00", "%m/%d/%Y %H:%M:%S", &tm);
        tm.tm_isdst = -1;
        now_ = static_cast<double>(std::mktime(&tm));
    }
    void advance(double seconds) { now_ += seconds; }

    // One line at the present time (and the clock one millisecond on).
    SampleLog& line(const std::string& tag, const std::string& fields) {
        jx::appendLineTime(text_, jx::Date{now_});
        text_ += " [" + tag + "] " + fields + "\n";
        now_ += 0.001;
        return *this;
    }
    // The four lines of one ARM utility sample: utility u over d seconds, APPS
    // value a, and p as the largest peripherals percentage.
    SampleLog& sample(double u, double d, double a, double p) {
        line("BB HW Log", "LogCode=0x1; Duration=" + number(d) + ";");
        line("BB HW RPM", "XO_Shutdown=[" + number(100.0 - u) + "%,1200]; VDD_Min=[0%,0];");
        line("BB HW APPS", "Sleep=4; CXO_Shutdown=[" + number(100.0 - a) + "%,55];");
        line("BB HW Peripherals", "USB=[1,2," + number(p) + "%]; SPI=[3,1%]; UART=[3,0%]; GPS=[0,0%]; GPS_DPO=[0,0%];");
        return *this;
    }
    SampleLog& display(bool on) {
        return line("Display", std::string("active=") + (on ? "YES" : "NO") + "; brightness=0.5;");
    }
    // Lines the extraction drops.
    SampleLog& noise() { return line("Process", "name=launchdeck; cpu=1.5;"); }
    const std::string& text() const { return text_; }

    static std::string number(double v) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%g", v);
        return buf;
    }

private:
    double now_;
    std::string text_;
};

inline std::pair<long long, long long> birthTime(const std::string& path) {
    struct statx st {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &st) != 0) return {-1, -1};
    const auto& t = (st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_mtime;
    return {t.tv_sec, t.tv_nsec};
}

// Writes a file, then waits until a file made now would be dated later: the file
// system's clock moves in ticks, and files made within one tick share a date.
inline void writeDatedFile(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
    const auto made = birthTime(path);
    const std::string probe = path + ".probe";
    waitFor([&] {
        std::ofstream(probe) << "";
        bool later = birthTime(probe) > made;
        std::remove(probe.c_str());
        return later;
    });
}

}  // namespace jxtest
