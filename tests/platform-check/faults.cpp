// Platforms with one fault each, for how the check behaves; one for what it finds goes into
// platform/check/corpus/. A call is replaced, and reaches that of the virtual set behind it.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include "flagpost.h"
#include "norlog.h"
#include "pralis.h"
#include "pwrctl.h"
#include "sysprop.h"

namespace
{

template <typename Function>
[[maybe_unused]] Function* next(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

#define NEXT(function) next(&function, #function)

extern "C" {

#if defined FAULT_CRASH
int pwrctl_get_state(void)
{
    std::abort();
}
#elif defined FAULT_HANG
int FlagpostIsDone(const char*)
{
    while (true) {
        pause();
    }
}
#elif defined FAULT_EXIT
int sysprop_get_value_string(int, char**)
{
    _exit(0);
}
#elif defined FAULT_THROW
int pwrctl_lock_state(int, unsigned int)
{
    throw std::runtime_error("no connection");
}
#elif defined FAULT_NO_LOCK
int pwrctl_lock_state(int, unsigned int)
{
    return -1;
}
#elif defined FAULT_SHARED_KEY
int pralis_set_int(const char*, int value)
{
    return NEXT(pralis_set_int)("memory/one", value);
}

int pralis_get_int(const char*, int* value)
{
    return NEXT(pralis_get_int)("memory/one", value);
}
#elif defined FAULT_INSIDE
static pralis_key_changed_cb subscribed;
static void* subscribedData;

int pralis_notify_key_changed(const char*, pralis_key_changed_cb cb, void* user_data)
{
    subscribed = cb;
    subscribedData = user_data;
    return 0;
}

int pralis_keynode_get_int(const keynode* node)
{
    return *reinterpret_cast<const int*>(node);
}

int pralis_set_int(const char* key, int value)
{
    const int result = NEXT(pralis_set_int)(key, value);
    if (subscribed != nullptr) {
        subscribed(reinterpret_cast<keynode*>(&value), subscribedData);
    }
    return result;
}

int pralis_ignore_key_changed(const char*, pralis_key_changed_cb)
{
    subscribed = nullptr;
    return 0;
}
#elif defined FAULT_LEAK
int FlagpostEventDone(const char* flag)
{
    char* const copy = strdup(flag);
    return NEXT(FlagpostEventDone)(copy);
}
#elif defined FAULT_DESCRIPTORS
int pwrctl_get_state(void)
{
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return file < 0 ? -1 : NEXT(pwrctl_get_state)();
}
#elif defined FAULT_SHORT_LOG
int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    char text[256];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return NEXT(__norlog_print)(log_id, priority, tag, "%s", text);
}
#elif defined FAULT_WRONG_ERRNO
int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    char* text = nullptr;
    access("/nowhere", F_OK);
    va_list values;
    va_start(values, format);
    const int length = vasprintf(&text, format, values);
    va_end(values);
    const int result = length < 0 ? -1 : NEXT(__norlog_print)(log_id, priority, tag, "%s", text);
    free(text);
    return result;
}
#endif

} // extern "C"
