// In-process trace recorder: keeps messages with the place they were logged from.
//
// What the daemon relies on: any thread may record, and a record takes no longer than a twentieth of a
// second. The text has any length, and is kept whole, formatted once with the values of this call; "%m"
// stands for the errno that the caller held. errno is left as it was. What is kept in memory has a bound.
#ifndef TRACE_LOGGER_H
#define TRACE_LOGGER_H

class TraceLogger
{
public:
    // Priorities and formats as in the platform log (norlog.h).
    static void record(int priority, const char* file, const char* function, int line, const char* format,
                       ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 5, 6)))
#endif
        ;
};

#define TRACE_RECORD(priority, format, ...)                                                                  \
    TraceLogger::record(priority, __FILE__, __func__, __LINE__, format, ##__VA_ARGS__)

#endif
