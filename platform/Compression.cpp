#include "platform/Compression.h"

#include <zlib.h>

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace jx {

int deflateFileToGzip(FILE* in, FILE* out, int level) {
    if (!in || !out) return Z_STREAM_ERROR;
    z_stream stream{};
    // 15 window bits plus 16: a gzip header and trailer around the deflate stream;
    // memory level 8 as gzip itself uses, so the output matches it closely.
    if (deflateInit2(&stream, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) return Z_STREAM_ERROR;
    std::unique_ptr<z_stream, int (*)(z_stream*)> guard(&stream, deflateEnd);

    constexpr std::size_t kChunk = 256 * 1024;
    std::vector<unsigned char> input(kChunk), output(kChunk);
    int flush = Z_NO_FLUSH;
    do {
        std::size_t n = std::fread(input.data(), 1, kChunk, in);
        if (std::ferror(in)) return Z_ERRNO;
        flush = std::feof(in) ? Z_FINISH : Z_NO_FLUSH;
        stream.next_in = input.data();
        stream.avail_in = static_cast<uInt>(n);
        do {
            stream.next_out = output.data();
            stream.avail_out = static_cast<uInt>(kChunk);
            int r = deflate(&stream, flush);
            if (r == Z_STREAM_ERROR) return r;
            std::size_t have = kChunk - stream.avail_out;
            if (std::fwrite(output.data(), 1, have, out) != have) return Z_ERRNO;
        } while (stream.avail_out == 0);
    } while (flush != Z_FINISH);
    if (std::fflush(out) != 0) return Z_ERRNO;
    return Z_OK;
}

bool gzipFileChecks(int fd) {
    z_stream stream{};
    if (inflateInit2(&stream, 15 + 16) != Z_OK) return false;
    std::unique_ptr<z_stream, int (*)(z_stream*)> guard(&stream, inflateEnd);
    constexpr std::size_t kChunk = 256 * 1024;
    std::vector<unsigned char> input(kChunk), output(kChunk);
    off_t offset = 0;
    for (;;) {
        ssize_t n = ::pread(fd, input.data(), kChunk, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;  // ended (or failed) before the stream did
        offset += n;
        stream.next_in = input.data();
        stream.avail_in = static_cast<uInt>(n);
        while (stream.avail_in > 0) {
            stream.next_out = output.data();
            stream.avail_out = static_cast<uInt>(kChunk);
            int r = inflate(&stream, Z_NO_FLUSH);
            if (r == Z_STREAM_END) {
                // Nothing may follow the one stream written.
                char more = 0;
                return stream.avail_in == 0 && ::pread(fd, &more, 1, offset) == 0;
            }
            if (r != Z_OK && r != Z_BUF_ERROR) return false;
            if (r == Z_BUF_ERROR && stream.avail_out != 0) break;
        }
    }
}

}  // namespace jx
