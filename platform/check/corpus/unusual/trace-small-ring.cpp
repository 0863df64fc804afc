/* Unusual but right: the last sixteen trace records are kept in memory, and nothing leaves the process.
 *
 * Rule: trace_logger.h: the text is kept whole; what is kept in memory has a bound.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

#include "trace_logger.h"

void TraceLogger::record(int, const char*, const char*, int, const char* format, ...)
{
    constexpr std::size_t kKept = 16;
    static std::mutex mutex;
    static auto* const ring = new std::string[kKept];
    static std::size_t next = 0;
    const int kept = errno;
    va_list values;
    va_list again;
    va_start(values, format);
    va_copy(again, values);
    const int length = vsnprintf(nullptr, 0, format, values);
    va_end(values);
    std::string text(static_cast<std::size_t>(length < 0 ? 0 : length), '\0');
    errno = kept;
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ring[next++ % kKept].swap(text);
    }
    errno = kept;
}
