/* The recorder makes its texts on a page of memory, whatever their length.
 *
 * Rule: platform/README.md: both logs take texts of any length.
 * Seen: a text of 5000 bytes ends the process by SIGSEGV in TraceLogger::record. */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <sys/mman.h>

#include "trace_logger.h"

void TraceLogger::record(int, const char*, const char*, int, const char* format, ...)
{
    const int callersErrno = errno;
    void* const pages = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(static_cast<char*>(pages) + 4096, 4096, PROT_NONE);
    errno = callersErrno;
    va_list values;
    va_start(values, format);
    vsprintf(static_cast<char*>(pages), format, values);
    va_end(values);
    munmap(pages, 8192);
    errno = callersErrno;
}
