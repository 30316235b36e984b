// What joulixctl's log, report and export share on their command lines: the scan of
// their words with getopt_long, the --since/--until range, and the refusals.
#pragma once

#include <getopt.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "analysis/TimeText.h"

namespace jxctl {

inline int usageError(const std::string& why) {
    std::fprintf(stderr, "joulixctl: %s; see joulixctl --help\n", why.c_str());
    return 2;
}

class CommandLine {
public:
    // The words after the command's name, scanned afresh (getopt keeps its place in
    // globals) and with getopt's own messages off: the refusals below say it once.
    CommandLine(std::string command, const std::vector<std::string>& args)
        : command_(std::move(command)), words_(args) {
        words_.insert(words_.begin(), "joulixctl " + command_);
        for (std::string& w : words_) argv_.push_back(w.data());
        argv_.push_back(nullptr);
        optind = 0;
        opterr = 0;
    }

    // The next option as getopt_long gives it; -1 after the last.
    int next(const char* shortOptions, const option* options) {
        return getopt_long(argc(), argv_.data(), shortOptions, options, nullptr);
    }

    // --since or --until's value; the usage error's status when it cannot be read.
    std::optional<int> readTime(bool isSince) {
        std::string why;
        std::optional<jx::analysis::TimeMs> t =
            jx::analysis::parseTimeOption(isSince ? "--since" : "--until", optarg, now_, &why);
        if (!t) return usageError(why);
        (isSince ? since : until) = t;
        return std::nullopt;
    }

    // The refusal of an option getopt could not take: ':' when its value is missing.
    int badOption(int c) const {
        const std::string word = argv_[optind - 1];
        return usageError(command_ +
                          (c == ':' ? ": option '" + word + "' needs a value" : ": unknown option '" + word + "'"));
    }

    // After the scan: the refusal of a word no option took, or of a range that runs backwards.
    std::optional<int> leftOverOrBackwards() const {
        if (optind < argc()) return usageError(command_ + " takes no argument '" + argv_[optind] + "'");
        if (since && until && *since > *until) return usageError(command_ + ": --since lies after --until");
        return std::nullopt;
    }

    std::optional<jx::analysis::TimeMs> since, until;

private:
    int argc() const { return static_cast<int>(argv_.size()) - 1; }

    std::string command_;
    std::vector<std::string> words_;
    std::vector<char*> argv_;
    const jx::analysis::TimeMs now_ = jx::analysis::nowMs();
};

}  // namespace jxctl
