// A stream of the C library with an owner.
#ifndef COMMON_FILES_OWNED_FILE_H
#define COMMON_FILES_OWNED_FILE_H

#include <cstdio>
#include <memory>

namespace common
{

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using OwnedFile = std::unique_ptr<FILE, FileCloser>; // closed on every exit

} // namespace common

#endif
