// A control library whose module is its file's name: what it is asked and what it answers is the test's
// business (daemon.cpp, in the program that loads it). It allocates nothing: memory is the daemon's to lack.
#include <cstdio>
#include <cstdlib>

#include "include/tarnwick/control.h"
#include "tests/proof/process/control-calls.h"

namespace
{

constexpr size_t kTextSize = 4096;

int called(const char* function, const char* arguments = "", void* out = nullptr)
{
    return proofControlCalled(MODULE_NAME, function, arguments, out);
}

} // namespace

int setContext(const char* name, int caller, char* context)
{
    char text[kTextSize];
    snprintf(text, sizeof text, "\"%s\", %d, \"%s\"", name, caller, context);
    return called("setContext", text);
}

int getEMPID(char* out)
{
    return called("getEMPID", "", out);
}

int getActiveVersion(char* out)
{
    return called("getActiveVersion", "", out);
}

int checkVersion(const char* version, int* result)
{
    char text[kTextSize];
    snprintf(text, sizeof text, "\"%s\"", version);
    *result = static_cast<int>(strtol(version, nullptr, 10));
    return called("checkVersion", text, result);
}

int doUpdate(const char* name, unsigned long value)
{
    char text[kTextSize];
    snprintf(text, sizeof text, "\"%s\", %lu", name, value);
    return called("doUpdate", text);
}

int allUpdateDone()
{
    return called("allUpdateDone");
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    return proofImageWritten(MODULE_NAME, data, length);
}

int getExpectedTime(int* out)
{
    return called("getExpectedTime", "", out);
}

int getUpdateProgress(unsigned int* out)
{
    return called("getUpdateProgress", "", out);
}
