// The entry points of a control library that does what its recorder says. LINKAGE_x makes an entry point
// exported plainly (the default), exported under its C++ name (empty), or not at all (static); with
// NULL_SYMBOL it is exported with the address 0. For that the entry points are not declared by
// tarnwick/control.h.
#include "tests/support/control-libraries/recorded-calls.h"

#ifndef LINKAGE_setContext
#define LINKAGE_setContext extern "C"
#endif
#ifndef LINKAGE_getEMPID
#define LINKAGE_getEMPID extern "C"
#endif
#ifndef LINKAGE_getActiveVersion
#define LINKAGE_getActiveVersion extern "C"
#endif
#ifndef LINKAGE_checkVersion
#define LINKAGE_checkVersion extern "C"
#endif
#ifndef LINKAGE_doUpdate
#define LINKAGE_doUpdate extern "C"
#endif
#ifndef LINKAGE_allUpdateDone
#define LINKAGE_allUpdateDone extern "C"
#endif
#ifndef LINKAGE_doUpdate_decryption
#define LINKAGE_doUpdate_decryption extern "C"
#endif
#ifndef LINKAGE_getExpectedTime
#define LINKAGE_getExpectedTime extern "C"
#endif
#ifndef LINKAGE_getUpdateProgress
#define LINKAGE_getUpdateProgress extern "C"
#endif

#ifdef NULL_SYMBOL
__asm__(".globl " NULL_SYMBOL "\n.set " NULL_SYMBOL ", 0\n");
#endif

extern "C" ControlRecorder* controlRecorder()
{
    return recorded::controlRecorder();
}

LINKAGE_setContext int setContext [[maybe_unused]] (const char* name, int caller, char* context)
{
    return recorded::setContext(name, caller, context);
}

LINKAGE_getEMPID int getEMPID [[maybe_unused]] (char* out)
{
    return recorded::getEMPID(out);
}

LINKAGE_getActiveVersion int getActiveVersion [[maybe_unused]] (char* out)
{
    return recorded::getActiveVersion(out);
}

LINKAGE_checkVersion int checkVersion [[maybe_unused]] (const char* version, int* result)
{
    return recorded::checkVersion(version, result);
}

LINKAGE_doUpdate int doUpdate [[maybe_unused]] (const char* name, unsigned long value)
{
    return recorded::doUpdate(name, value);
}

LINKAGE_allUpdateDone int allUpdateDone [[maybe_unused]] ()
{
    return recorded::allUpdateDone();
}

LINKAGE_doUpdate_decryption int doUpdate_decryption [[maybe_unused]] (const unsigned char* data, int length)
{
    return recorded::doUpdate_decryption(data, length);
}

LINKAGE_getExpectedTime int getExpectedTime [[maybe_unused]] (int* out)
{
    return recorded::getExpectedTime(out);
}

LINKAGE_getUpdateProgress int getUpdateProgress [[maybe_unused]] (unsigned int* out)
{
    return recorded::getUpdateProgress(out);
}

#ifdef CALLS_MISSING_FUNCTION
extern "C" void functionThatNobodyHas();
extern "C" void callMissingFunction()
{
    functionThatNobodyHas();
}
#endif
