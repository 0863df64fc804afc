// norlog.h, trace_logger.h: one file for both.
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "norlog.h"
#include "trace_logger.h"

namespace
{

// Nothing is kept back in the process, which may end without a last word. errno is the caller's before and
// after.
__attribute__((format(printf, 3, 0))) int append(const char* log, const char* tag, const char* format,
                                                 va_list values)
{
    const int callersErrno = errno;
    char* text = nullptr;
    if (vasprintf(&text, format, values) < 0) {
        errno = callersErrno;
        return -1;
    }
    std::string line = std::string(log) + " " + tag + " " + text;
    free(text);
    while (line.back() == '\n') {
        line.pop_back();
    }
    line += '\n';
    const int file = open("/var/log/tv.log", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    const bool isWritten =
        file >= 0 && write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (file >= 0) {
        close(file);
    }
    errno = callersErrno;
    return isWritten ? 0 : -1;
}

} // namespace

int __norlog_print(int, int, const char* tag, const char* format, ...)
{
    va_list values;
    va_start(values, format);
    const int result = append("log", tag, format, values);
    va_end(values);
    return result;
}

void TraceLogger::record(int, const char*, const char* function, int, const char* format, ...)
{
    va_list values;
    va_start(values, format);
    append("trace", function, format, values);
    va_end(values);
}
