// What is measured on files is measured on one of these.
#ifndef BENCH_TEMPORARY_FILE_H
#define BENCH_TEMPORARY_FILE_H

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>

namespace bench
{

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

// A file in the temporary directory, removed at the end.
class TemporaryFile
{
public:
    TemporaryFile()
    {
        const int descriptor = mkstemp(path.data());
        if (descriptor < 0) {
            perror("no temporary file");
            exit(EXIT_FAILURE);
        }
        file.reset(fdopen(descriptor, "wb"));
    }
    ~TemporaryFile() { unlink(path.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    std::string path = "/tmp/tarnwick-bench-XXXXXX";
    File file{nullptr, fclose};
};

} // namespace bench

#endif
