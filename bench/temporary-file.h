// What is measured on a file is measured on one of these.
#ifndef BENCH_TEMPORARY_FILE_H
#define BENCH_TEMPORARY_FILE_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "common/files/owned-file.h"

namespace bench
{

// A file in the temporary directory, removed at the end.
class TemporaryFile
{
public:
    TemporaryFile()
    {
        const int descriptor = mkstemp(path.data());
        if (descriptor < 0) {
            throw std::runtime_error(path + " cannot be made: " + strerror(errno));
        }
        file_.reset(fdopen(descriptor, "wb"));
    }
    ~TemporaryFile() { unlink(path.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    void append(const void* bytes, size_t count)
    {
        if (fwrite(bytes, 1, count, file_.get()) != count) {
            throw std::runtime_error(path + " cannot be written: " + strerror(errno));
        }
    }
    void finish() { file_.reset(); }

    std::string path = "/tmp/tarnwick-bench-XXXXXX";

private:
    common::OwnedFile file_;
};

} // namespace bench

#endif
