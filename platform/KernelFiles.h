// Reading the kernel's own interfaces: small text files under sysfs and procfs,
// and the directories that list devices. Every call answers "nothing" rather
// than failing: a device that is missing or gone between two reads is normal.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace jx {

// A whole small file, or nothing when it cannot be read.
std::optional<std::string> readKernelFile(const std::string& path);
// The file's first line without trailing blanks.
std::optional<std::string> readKernelLine(const std::string& path);
// The file's first line as a decimal integer.
std::optional<long long> readKernelNumber(const std::string& path);
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
