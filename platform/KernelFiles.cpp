#include "platform/KernelFiles.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

#include "platform/FileDescriptor.h"
#include "platform/SystemLog.h"

namespace jx {

namespace {
// Kernel attribute files are at most a page; procfs tables of a busy machine a
// few hundred kilobytes. Anything longer is not what we meant to read.
constexpr std::size_t kMaximumBytes = 4 << 20;
}  // namespace

namespace {

// The text from the file's start: all of it, or up to the end of its first line.
// Read with pread from offset 0, so that an attribute kept open is made afresh.
std::optional<std::string> readFrom(int fd, bool firstLine) {
    std::string text;
    char buf[4096];
    bool positional = true;
    for (;;) {
        ssize_t n = positional ? ::pread(fd, buf, sizeof buf, static_cast<off_t>(text.size())) : ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            // A file that cannot seek is read straight on (from its start when just opened).
            if (errno == ESPIPE && positional && text.empty()) {
                positional = false;
                continue;
            }
            return std::nullopt;  // a sysfs attribute the driver refuses to give (EINVAL, ENODATA, EIO)
        }
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
        if (text.size() > kMaximumBytes) return std::nullopt;
        // One read holds a whole attribute: with its first line in hand, a line's reader
        // needs no second read to see the end.
        if (firstLine && std::memchr(buf, '\n', static_cast<std::size_t>(n))) break;
    }
    return text;
}

std::optional<std::string> readPath(const std::string& path, bool firstLine) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return std::nullopt;
    return readFrom(fd.get(), firstLine);
}

std::optional<std::string> firstLineOf(std::optional<std::string> text) {
    if (!text) return std::nullopt;
    text->resize(std::min(text->size(), text->find('\n')));
    while (!text->empty() && (text->back() == ' ' || text->back() == '\t' || text->back() == '\r')) text->pop_back();
    return text;
}

std::optional<long long> numberIn(const std::optional<std::string>& line) {
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

}  // namespace

std::optional<std::string> readKernelFile(const std::string& path) { return readPath(path, false); }
std::optional<std::string> readKernelLine(const std::string& path) { return firstLineOf(readPath(path, true)); }
std::optional<long long> readKernelNumber(const std::string& path) { return numberIn(readKernelLine(path)); }

std::optional<std::string> OpenAttributes::read(const std::string& path, bool firstLine) {
    auto it = open_.find(path);
    if (it != open_.end()) {
        it->second.used = true;
        if (std::optional<std::string> text = readFrom(it->second.fd.get(), firstLine)) return text;
        // Gone (ENODEV once its device left) or refusing: opened afresh below, once.
        open_.erase(it);
    }
    if (open_.size() >= limit_) return readPath(path, firstLine);
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return std::nullopt;
    std::optional<std::string> text = readFrom(fd.get(), firstLine);
    if (text) open_.emplace(path, Open{std::move(fd), true});
    return text;
}

std::optional<std::string> OpenAttributes::line(const std::string& path) { return firstLineOf(read(path, true)); }
std::optional<long long> OpenAttributes::number(const std::string& path) { return numberIn(line(path)); }

void OpenAttributes::sweep() {
    std::erase_if(open_, [](const auto& entry) { return !entry.second.used; });
    for (auto& [path, open] : open_) open.used = false;
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
