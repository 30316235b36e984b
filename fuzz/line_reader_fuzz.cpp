// Fuzzes the line reader: whatever the bytes, the lines it returns are the file's
// lines in order, each whole and ending with its newline (the last may lack one),
// and it stops early only at a line that is not UTF-8.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/SystemLog.h"
#include "platform/TextEncoding.h"

namespace {

struct Quiet : jx::LogSink {
    void message(int, std::string_view) override {}
};

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "line reader: %s\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A real file by its own name: the reader opens its file without following a link,
    // so a /proc/self/fd name would not do.
    static char name[] = "/tmp/joulix-line-reader-XXXXXX";
    static int fd = [] {
        int made = mkstemp(name);
        std::atexit([] { ::unlink(name); });
        return made;
    }();
    static const std::string path = name;
    static Quiet quiet;
    jx::setLogSink(&quiet);
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);

    JXBasebandPostProcessing reader;
    reader.initWithFilePath(path);
    check(reader.totalFileLength() == size, "length");
    std::size_t offset = 0;
    while (std::optional<std::string> line = reader.readLine()) {
        check(!line->empty(), "empty line");
        check(input.compare(offset, line->size(), *line) == 0, "not the next bytes of the file");
        const std::size_t newline = line->find('\n');
        check(newline == std::string::npos ? offset + line->size() == size : newline == line->size() - 1,
              "not one whole line");
        offset += line->size();
        check(reader.currentOffset() == offset, "offset");
    }
    if (offset < size) {
        // Stopped early: the line at the offset is not UTF-8.
        std::size_t end = input.find('\n', offset);
        end = end == std::string::npos ? size : end + 1;
        check(!jx::isValidUTF8(std::string_view(input).substr(offset, end - offset)), "stopped at a good line");
    }
    reader.releaseFileObjects();
    check(!reader.readLine() || size == 0, "read after release");

    // The byte search is exact for the one-byte needle the reader uses.
    const std::uint8_t newline[] = {'\n'};
    JXRange r = rangeOfData(std::span<const std::uint8_t>(data, size), newline);
    const void* hit = size ? std::memchr(data, '\n', size) : nullptr;
    check(hit ? r.location == static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - data)
              : r.location == JXNotFound,
          "rangeOfData");
    jx::setLogSink(nullptr);
    return 0;
}
