/* The interface as C11 sees it; defines the nine functions, as a maker's library in C does. */
#include <tarnwick/control.h>

#define ABI_SAME_TYPE(function, type)                                                                        \
    _Static_assert(_Generic(&(function), type *: 1, default: 0), #function " has changed")
#define ABI_ASSERT(condition) _Static_assert(condition, #condition)

typedef int allUpdateDone_abi(void);
#include "control-abi.inc"

int setContext(const char* name, int caller, char* context)
{
    return name == 0 || caller < 0 || context == 0;
}

int getEMPID(char* out)
{
    return out[0] = 0;
}

int getActiveVersion(char* out)
{
    return out[0] = 0;
}

int checkVersion(const char* version, int* result)
{
    *result = version[0] ? TARNWICK_CONTROL_VERDICT_NEWER : TARNWICK_CONTROL_VERDICT_SAME;
    return 0;
}

int doUpdate(const char* name, unsigned long value)
{
    return name == 0 && value == 0;
}

int allUpdateDone(void)
{
    return 0;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    return data == 0 || length < 0;
}

int getExpectedTime(int* out)
{
    *out = 1;
    return 0;
}

int getUpdateProgress(unsigned int* out)
{
    *out = 0;
    return 0;
}
