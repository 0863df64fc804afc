/* Unusual but right: trace records are kept in memory until there are sixty-four, which are then written.
 *
 * Rule: trace_logger.h: what is kept in memory has a bound; nothing has to leave the process.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <unistd.h>

#include "trace_logger.h"

namespace
{

void writeOut(const std::string& block)
{
    const int file = open("/tmp/traces", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file >= 0) {
        (void)!write(file, block.data(), block.size());
        close(file);
    }
}

} // namespace

void TraceLogger::record(int, const char*, const char*, int, const char* format, ...)
{
    constexpr int kMost = 64;
    static std::mutex mutex;
    static auto* const block = new std::string;
    static int records = 0;
    const int kept = errno;
    char* text = nullptr;
    va_list values;
    va_start(values, format);
    const int length = vasprintf(&text, format, values);
    va_end(values);
    if (length >= 0) {
        const std::lock_guard<std::mutex> lock(mutex);
        *block += std::string(text) + '\n';
        if (++records % kMost == 0) {
            writeOut(*block);
            block->clear();
        }
        free(text);
    }
    errno = kept;
}
