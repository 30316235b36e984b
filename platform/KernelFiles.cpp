#include "platform/KernelFiles.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>

#include "platform/FileDescriptor.h"
#include "platform/SystemLog.h"

namespace jx {

namespace {
// Kernel attribute files are at most a page; procfs tables of a busy machine a
// few hundred kilobytes. Anything longer is not what we meant to read.
constexpr std::size_t kMaximumBytes = 4 << 20;
}  // namespace

std::optional<std::string> readKernelFile(const std::string& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return std::nullopt;
    std::string text;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;  // a sysfs attribute the driver refuses to give (EINVAL, ENODATA, EIO)
        }
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
        if (text.size() > kMaximumBytes) return std::nullopt;
    }
    return text;
}

std::optional<std::string> readKernelLine(const std::string& path) {
    std::optional<std::string> text = readKernelFile(path);
    if (!text) return std::nullopt;
    std::string line = text->substr(0, text->find('\n'));
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.pop_back();
    return line;
}

std::optional<long long> readKernelNumber(const std::string& path) {
    std::optional<std::string> line = readKernelLine(path);
    if (!line) return std::nullopt;
    std::size_t start = line->find_first_not_of(" \t");
    if (start == std::string::npos) return std::nullopt;
    const char* first = line->data() + start;
    const char* last = line->data() + line->size();
    long long value = 0;
    auto [end, ec] = std::from_chars(first, last, value);
    if (ec != std::errc() || end != last) return std::nullopt;
    return value;
}

std::vector<std::string> listKernelDirectory(const std::string& path) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (!dir) return names;
    while (dirent* e = ::readdir(dir.get())) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string fieldText(std::string_view text) {
    std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    std::size_t last = text.find_last_not_of(" \t\r\n");
    std::string out(text.substr(first, last - first + 1));
    for (char& c : out)
        if (c == ';' || c == '\n' || c == '\r') c = '_';
    return out;
}

void SaidOnce::say(const std::string& text) {
    if (said_) return;
    said_ = true;
    systemLog(kLogNotice, text);
}

}  // namespace jx
