// The file-compression service: deflate one open file into another in the gzip
// format, streamed, so that a log of any size costs a fixed amount of memory.
#pragma once

#include <cstdio>

namespace jx {

// Reads in from its current position to its end and writes the gzip form to out.
// Answers 0 on success; otherwise a zlib or I/O error code (negative).
int deflateFileToGzip(FILE* in, FILE* out, int level);
// Whether the file open on fd (read from its start) is one whole gzip stream whose
// check sum and length match what it holds: a compression cut short is not.
bool gzipFileChecks(int fd);

}  // namespace jx
