/* Texts are written into a page of memory, whatever their length.
 *
 * Rule: platform/README.md: both logs take texts of any length.
 * Seen: a text of 5000 bytes ends the process by SIGSEGV. */
#include <stdarg.h>
#include <stdio.h>
#include <sys/mman.h>

#include "platform/check/corpus/log-call.h"

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    char* pages = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(pages + 4096, 4096, PROT_NONE);
    va_list values;
    va_start(values, format);
    vsprintf(pages, format, values);
    va_end(values);
    const int result = host_log(log_id, priority, tag, pages);
    munmap(pages, 8192);
    return result;
}
