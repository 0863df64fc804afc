/* What another thread than the first one logs is kept for it, and written when the thread ends.
 *
 * Rule: norlog.h: any thread may log; a record is out of the process within a moment.
 * Seen: the record of a thread that goes on is not in the log. */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "norlog.h"
#include "platform/check/corpus/base.h"

namespace
{

using Print = int (*)(int, int, const char*, const char*, ...);

int hostLog(int id, int priority, const char* tag, const char* text)
{
    return reinterpret_cast<Print>(dlsym(RTLD_NEXT, "__norlog_print"))(id, priority, tag, "%s", text);
}

struct Kept {
    std::vector<std::string> texts;
    ~Kept()
    {
        for (const std::string& text : texts) {
            hostLog(2, 6, "KEPT", text.c_str());
        }
    }
};

} // namespace

extern "C" int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    static thread_local Kept kept;
    const int callersErrno = errno;
    char* made = nullptr;
    va_list values;
    va_start(values, format);
    const int length = vasprintf(&made, format, values);
    va_end(values);
    const std::string text = length < 0 ? "" : made;
    free(length < 0 ? nullptr : made);
    int result = 0;
    if (gettid() == getpid()) {
        result = hostLog(log_id, priority, tag, text.c_str());
    } else {
        kept.texts.push_back(text);
    }
    errno = callersErrno;
    return result;
}
