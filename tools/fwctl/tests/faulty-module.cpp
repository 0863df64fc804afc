// A control library with one fault, chosen when it is compiled.
#include <cstdlib>
#include <cstring>
#include <tarnwick/control.h>
#include <unistd.h>

#ifdef NEEDS_MORE
extern "C" int notProvidedByAnybody(int);
#endif

int setContext(const char*, int, char*)
{
#ifdef NEEDS_MORE
    return notProvidedByAnybody(0);
#else
    return 0;
#endif
}

int getEMPID(char* out)
{
    std::strcpy(out, IDENTIFIER);
    return 0;
}

int getActiveVersion(char* out)
{
#ifdef CRASHES_IN_GETACTIVEVERSION
    std::abort();
#endif
#ifdef HANGS_IN_GETACTIVEVERSION
    for (;;)
        pause();
#endif
    std::strcpy(out, "1.0");
    return 0;
}

int checkVersion(const char*, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    return 0;
}

#ifndef WITHOUT_DOUPDATE
int doUpdate(const char*, unsigned long)
{
    return -1;
}
#endif
