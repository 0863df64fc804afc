// A control library whose module is its file's name: what it is asked and what it answers is the test's
// business (daemon.cpp, in the program that loads it).
#include <string>

#include "include/tarnwick/control.h"
#include "tests/proof/model/control-calls.h"

namespace
{

std::string quoted(const char* text)
{
    return "\"" + std::string(text) + "\"";
}

int called(const char* function, const std::string& arguments = "", void* out = nullptr)
{
    return proofControlCalled(MODULE_NAME, function, arguments.c_str(), out);
}

} // namespace

int setContext(const char* name, int caller, char* context)
{
    return called("setContext", quoted(name) + ", " + std::to_string(caller) + ", " + quoted(context));
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
    *result = std::stoi(version);
    return called("checkVersion", quoted(version));
}

int doUpdate(const char* name, unsigned long value)
{
    return called("doUpdate", quoted(name) + ", " + std::to_string(value));
}

int allUpdateDone()
{
    return called("allUpdateDone");
}

int doUpdate_decryption(const unsigned char*, int length)
{
    return called("doUpdate_decryption", std::to_string(length));
}

int getExpectedTime(int* out)
{
    return called("getExpectedTime", "", out);
}

int getUpdateProgress(unsigned int* out)
{
    return called("getUpdateProgress", "", out);
}
