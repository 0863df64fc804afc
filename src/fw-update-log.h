// The one way to log: every message goes to the platform log first and to the trace recorder second.
//
// Other programs read these logs, so each text is part of the daemon's interface and stays as it is, with
// its spellings and with the "\n" that some of them carry.
#ifndef FW_UPDATE_LOG_H
#define FW_UPDATE_LOG_H

#include <cerrno>

#include "norlog.h"
#include "trace_logger.h"

enum FWLogPriority { FWLOG_DEBUG = 3, FWLOG_INFO = 4, FWLOG_WARNING = 5, FWLOG_ERROR = 6 };

// The file name without its directories: the log shows where a line stands, not where it was built.
constexpr const char* fwlogFileName(const char* path)
{
    const char* name = path;
    for (const char* c = path; *c != '\0'; ++c) {
        name = (*c == '/') ? c + 1 : name;
    }
    return name;
}

// To the platform log only (log id 2 is its system buffer). Leaves `errno` as it was.
#define FWLOG_NORLOG(priority, format, ...)                                                                  \
    do {                                                                                                     \
        const int fwlogNorlogErrno = errno;                                                                  \
        __norlog_print(2, priority, "FWUPDATE", "%s: %s(%d) > " format, fwlogFileName(__FILE__), __func__,   \
                       __LINE__, ##__VA_ARGS__);                                                             \
        errno = fwlogNorlogErrno;                                                                            \
    } while (false)

// To both logs. The arguments are evaluated twice, so they must have no side effect.
#define FWLOG(priority, format, ...)                                                                         \
    do {                                                                                                     \
        const int fwlogErrno = errno; /* a format may end in %m, in both logs */                             \
        FWLOG_NORLOG(priority, format, ##__VA_ARGS__);                                                       \
        TRACE_RECORD(priority, format, ##__VA_ARGS__);                                                       \
        errno = fwlogErrno;                                                                                  \
    } while (false)

#define FWLOGE(format, ...) FWLOG(FWLOG_ERROR, format, ##__VA_ARGS__)
#define FWLOGI(format, ...) FWLOG(FWLOG_INFO, format, ##__VA_ARGS__)
#define FWLOGD(format, ...) FWLOG(FWLOG_DEBUG, format, ##__VA_ARGS__)

#endif
