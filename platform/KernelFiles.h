// Reading the kernel's own interfaces: small text files under sysfs and procfs,
// and the directories that list devices. Every call answers "nothing" rather
// than failing: a device that is missing or gone between two reads is normal.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/FileDescriptor.h"

namespace jx {

// A whole small file, or nothing when it cannot be read.
std::optional<std::string> readKernelFile(const std::string& path);
// The file's first line without trailing blanks.
std::optional<std::string> readKernelLine(const std::string& path);
// The file's first line as a decimal integer.
std::optional<long long> readKernelNumber(const std::string& path);
// Attributes a logger reads at every sample, each kept open and read again from its
// start (sysfs makes its text afresh for every read at offset 0): a sample then costs
// one read per attribute, not a walk of its path, an open, two reads and a close.
// Answers as the functions above do. At most `limit` are kept open; past it an
// attribute is read the plain way.
class OpenAttributes {
public:
    explicit OpenAttributes(std::size_t limit = 256) : limit_(limit) {}
    std::optional<std::string> file(const std::string& path) { return read(path, false); }
    std::optional<std::string> line(const std::string& path);
    std::optional<long long> number(const std::string& path);
    // Closes what was not read since the last sweep: devices that went away.
    void sweep();
    std::size_t openCount() const { return open_.size(); }

private:
    std::optional<std::string> read(const std::string& path, bool firstLine);
    struct Open {
        FileDescriptor fd;
        bool used = true;
    };
    std::unordered_map<std::string, Open> open_;
    std::size_t limit_;
};

// The names in a directory ("." and ".." left out), sorted; empty when unreadable.
std::vector<std::string> listKernelDirectory(const std::string& path);

// A string made safe for one field of the log: the separators of the line
// (';', line breaks) become '_', and leading and trailing blanks go.
std::string fieldText(std::string_view text);

// A condition worth one system-log line, not one per sample: the first say()
// logs, later ones stay silent until reset() (the condition went away).
class SaidOnce {
public:
    void say(const std::string& text);
    void reset() { said_ = false; }
    bool said() const { return said_; }

private:
    bool said_ = false;
};

}  // namespace jx
