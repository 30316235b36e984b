// Choosing the power log to analyse and cutting the interesting lines out of it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include "baseband/BasebandText.h"
#include "baseband/JXBasebandPostProcessing.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"
#include "platform/Task.h"

namespace {

// The extraction keeps the lines of these thirteen tags (a basic regular
// expression: escaped brackets match themselves, "\|" joins the alternatives).
constexpr const char* kExtractionPattern =
    R"(\[Battery\]\|\[BB HW Log\]\|\[BB HW RPM\]\|\[BB HW APPS\]\|\[BB HW Peripherals\]\|\[BB HW Processor\]\|\[BB HW MPSS\]\|\[Display\]\|\[Telephony\]\|\[Sleep\]\|\[Wake\]\|\[BB Event\]\|\[Assertion\])";

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};

// A string predicate of the form "self OPERATOR 'literal'": ENDSWITH, BEGINSWITH,
// CONTAINS or ==, compared case-sensitively. Anything else raises.
class NamePredicate {
public:
    explicit NamePredicate(const std::string& format) {
        std::size_t i = 0;
        auto skipBlanks = [&] {
            while (i < format.size() && format[i] == ' ') ++i;
        };
        auto word = [&] {
            skipBlanks();
            std::size_t start = i;
            while (i < format.size() && format[i] != ' ' && format[i] != '\'' && format[i] != '"') ++i;
            return jx::baseband::foldCase(std::string_view(format).substr(start, i - start));
        };
        if (word() != "self") throw std::invalid_argument("predicate: no self");
        op_ = word();
        if (op_ != "endswith" && op_ != "beginswith" && op_ != "contains" && op_ != "==")
            throw std::invalid_argument("predicate: unknown operator");
        skipBlanks();
        if (i >= format.size() || (format[i] != '\'' && format[i] != '"'))
            throw std::invalid_argument("predicate: no literal");
        const char quote = format[i++];
        std::size_t end = format.find(quote, i);
        if (end == std::string::npos) throw std::invalid_argument("predicate: open literal");
        literal_ = format.substr(i, end - i);
        i = end + 1;
        skipBlanks();
        if (i != format.size()) throw std::invalid_argument("predicate: trailing text");
    }
    bool operator()(const std::string& s) const {
        if (op_ == "endswith") return s.ends_with(literal_);
        if (op_ == "beginswith") return s.starts_with(literal_);
        if (op_ == "contains") return s.find(literal_) != std::string::npos;
        return s == literal_;
    }

private:
    std::string op_, literal_;
};

struct ExactTime {
    std::int64_t seconds;
    std::uint32_t nanoseconds;
    auto operator<=>(const ExactTime&) const = default;
};

// Where the file system keeps no birth time, the modification time stands in.
const statx_timestamp& creationStamp(const struct statx& st) {
    return (st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_mtime;
}

std::optional<ExactTime> creationTime(const std::string& path) {
    struct statx st {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT, STATX_BTIME | STATX_MTIME, &st) !=
        0) {
        if (errno != ENOSYS) return std::nullopt;
        struct stat old {};
        if (::lstat(path.c_str(), &old) != 0) return std::nullopt;
        return ExactTime{old.st_mtim.tv_sec, static_cast<std::uint32_t>(old.st_mtim.tv_nsec)};
    }
    const statx_timestamp& t = creationStamp(st);
    return ExactTime{t.tv_sec, t.tv_nsec};
}

}  // namespace

std::string JXBasebandPostProcessing::temporaryJoulixPath() { return jx::rootPath(kTemporaryJoulix); }

std::string JXBasebandPostProcessing::extractionCommand(const std::string& joulixPath,
                                                        const std::string& temporaryPath) {
    // The paths go between double quotes with their special characters escaped: a
    // log whose name carries "$(…)" or backquotes is read as a file, never run.
    // LC_ALL=C and -a: every line holding a tag is kept, whatever bytes surround it.
    // Without -a, one NUL byte (a power loss can leave a zero-filled tail) makes grep
    // take the log for binary and write none of its lines.
    return searchCommand(joulixPath) + " > \"" + jx::shellEscapedForDoubleQuotes(temporaryPath) + "\"";
}

std::string JXBasebandPostProcessing::searchCommand(const std::string& joulixPath) {
    return std::string("LC_ALL=C grep -a \"") + kExtractionPattern + "\" \"" + jx::shellEscapedForDoubleQuotes(joulixPath) + "\"";
}

std::string JXBasebandPostProcessing::removalCommand(const std::string& temporaryPath) {
    // "rm -rf <path>" as it stands for a plain path; a root with blanks or shell
    // characters in it is quoted, so that rm removes the one file and nothing beside it.
    return "rm -rf " + jx::shellWord(temporaryPath);
}

jx::Date JXBasebandPostProcessing::creationDateFromAttributes(const struct statx& attributes) {
    const statx_timestamp& t = creationStamp(attributes);
    return jx::Date{static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9};
}

std::optional<jx::Date> JXBasebandPostProcessing::creationDateOfItemAtPath(const std::string& path) {
    auto t = creationTime(path);
    if (!t) return std::nullopt;
    return jx::Date{static_cast<double>(t->seconds) + t->nanoseconds / 1e9};
}

std::vector<std::string> JXBasebandPostProcessing::getMatchedFilesInDirectory(const std::string& path,
                                                                              const std::string& withFormat) {
    std::vector<std::string> matched;
    try {
        NamePredicate predicate(withFormat);
        // An unreadable directory is an empty one.
        std::unique_ptr<DIR, DirCloser> dir(::opendir(path.c_str()));
        if (!dir) return matched;
        while (const dirent* entry = ::readdir(dir.get())) {
            std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            if (predicate(name)) matched.push_back(std::move(name));
        }
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- getMatchedFilesInDirectory: Exception");
        matched.clear();
    }
    return matched;
}

std::string JXBasebandPostProcessing::joulixOfInterestOrThrow(const std::string& path) {
    // Newest first; a file with the creation date of one listed before it replaces it.
    std::map<ExactTime, std::string, std::greater<>> byCreation;
    for (const std::string& name : getMatchedFilesInDirectory(path, "self ENDSWITH '.joulix'")) {
        std::string full = path + name;
        // A link or anything else but a log file is not read as root: it could name any file.
        struct stat st {};
        if (::lstat(full.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) continue;
        auto created = creationTime(full);
        // A file gone before its attributes were read has no date to be filed under.
        if (!created) throw std::runtime_error("no creation date for " + full);
        byCreation[*created] = full;
    }
    // The newest log is passed over on purpose: the second newest is the one chosen.
    if (byCreation.size() < 2) return kNotFound;
    return std::next(byCreation.begin())->second;
}

std::string JXBasebandPostProcessing::getJoulixOfInterest(const std::string& path) {
    try {
        return joulixOfInterestOrThrow(path);
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- getJoulixOfInterest: Exception");
        return kNotFound;
    }
}

void JXBasebandPostProcessing::getTrimemdJoulixFile(const std::string& path) {
    try {
        removeTemporaryJoulix();
        // The extraction command's redirection, made by the daemon: the shell would
        // open the name as root and follow a link planted at it in the shared /var/tmp.
        // The file is new, made exclusively, and never reached through a link.
        std::string why;
        jx::FileDescriptor out =
            jx::openRegularFile(temporaryJoulixPath(), O_WRONLY | O_CREAT | O_EXCL, 0600, &why);
        if (!out.valid()) {
            jx::systemLogf(jx::kLogError, "BBPowerTool -- %s: %s: nothing extracted", temporaryJoulixPath().c_str(),
                           why.c_str());
            return;
        }
        // The exit status tells nothing more than the extract does: a failed
        // extraction leaves an empty file, which reads as no lines.
        JXUtilities::openTask(searchCommand(path), out.get());
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- getTrimemdJoulixFile: Exception");
    }
}

void JXBasebandPostProcessing::removeTemporaryJoulix() {
    try {
        JXUtilities::openTask(removalCommand(temporaryJoulixPath()));
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- removeTemporaryJoulix: Exception");
    }
}
