// joulixctl report over a week of generated logs, against the floor of reading the same
// bytes at all: zcat -f over the files piped to wc -l. Both run as child processes in
// every iteration; the counters give their times, the ratio and the report's peak RSS.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/LogGenerator.h"

extern char** environ;

namespace {

struct Week {
    std::string root;
    std::vector<std::string> files;
    std::uint64_t bytes = 0, compressedFiles = 0;
};

// Generated in a child process, so that this process stays small: a spawned child's
// peak RSS starts from its parent's.
const Week& week() {
    static const Week w = [] {
        Week w;
        char dir[] = "/tmp/jx-report-bench-XXXXXX";
        if (!mkdtemp(dir)) throw std::runtime_error("mkdtemp");
        w.root = dir;
        int pipeFds[2];
        if (pipe(pipeFds) != 0) throw std::runtime_error("pipe");
        const pid_t child = fork();
        if (child == 0) {
            jxtest::LogGeneratorOptions o;
            o.days = 7;
            o.periodSeconds = 60;
            o.processes = 10;
            o.archivedOnly = 4;       // the oldest days only as .gz
            o.archiveRolled = false;  // the others plain, read once
            const jxtest::LogTruth truth = jxtest::generateLogs(w.root, o);
            std::string out = std::to_string(truth.bytes) + "\n";
            for (const std::string& f : truth.files) out += f + "\n";
            if (write(pipeFds[1], out.data(), out.size()) != static_cast<ssize_t>(out.size())) _exit(1);
            _exit(0);
        }
        close(pipeFds[1]);
        std::string text;
        char buffer[4096];
        for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(n));
        close(pipeFds[0]);
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("generator failed");
        std::size_t at = text.find('\n');
        w.bytes = std::stoull(text.substr(0, at));
        for (std::size_t next; (next = text.find('\n', at + 1)) != std::string::npos; at = next) {
            w.files.push_back(text.substr(at + 1, next - at - 1));
            if (w.files.back().ends_with(".gz")) ++w.compressedFiles;
        }
        return w;
    }();
    return w;
}

struct Run {
    double seconds;
    long maxRssKb;
};

// A child with standard output thrown away; its wall time and peak RSS.
Run spawn(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0)
        throw std::runtime_error("cannot run " + argv[0]);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(argv[0] + " failed");
    return {seconds, usage.ru_maxrss};
}

void BM_ReportAgainstZcat(benchmark::State& state) {
    const Week& w = week();
    std::string files;
    for (const std::string& f : w.files) files += " '" + f + "'";
    const std::vector<std::string> zcat = {"/bin/sh", "-c", "zcat -f" + files + " | wc -l"};
    const std::vector<std::string> report = {JOULIX_BIN_DIR "/joulixctl", "--root", w.root, "report"};
    double zcatSeconds = 0, reportSeconds = 0;
    long peakKb = 0;
    for (auto _ : state) {
        zcatSeconds += spawn(zcat).seconds;
        const Run r = spawn(report);
        reportSeconds += r.seconds;
        peakKb = std::max(peakKb, r.maxRssKb);
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["zcat_ms"] = zcatSeconds / n * 1000;
    state.counters["report_ms"] = reportSeconds / n * 1000;
    state.counters["ratio"] = reportSeconds / zcatSeconds;
    state.counters["report_peak_rss_mb"] = static_cast<double>(peakKb) / 1024;
    state.counters["log_mb"] = static_cast<double>(w.bytes) / 1e6;
    state.counters["gz_files"] = static_cast<double>(w.compressedFiles);
    state.counters["files"] = static_cast<double>(w.files.size());
}
BENCHMARK(BM_ReportAgainstZcat)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    setenv("TZ", "UTC", 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    if (!week().root.empty()) std::filesystem::remove_all(week().root, ignored);
    return 0;
}
