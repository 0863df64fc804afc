// A control library without hardware: named after its file, always in the need of what is offered.

#include <cstdio>
#include <tarnwick/control.h>

namespace
{

char library[TARNWICK_CONTROL_TEXT_SIZE];

void answer(char* out, const char* text)
{
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%s", text);
}

} // namespace

int setContext(const char* name, int, char*)
{
    answer(library, name);
    return 0;
}

int getEMPID(char* out)
{
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "emp%.100s", library);
    return 0;
}

int getActiveVersion(char* out)
{
    answer(out, "1.0");
    return 0;
}

int checkVersion(const char*, int* result)
{
    *result = 1;
    return 0;
}

int doUpdate(const char*, unsigned long)
{
    return 0;
}

int allUpdateDone(void)
{
    return 0;
}

int doUpdate_decryption(const unsigned char*, int)
{
    return 0;
}

int getExpectedTime(int* out)
{
    *out = 8;
    return 0;
}

int getUpdateProgress(unsigned int* out)
{
    *out = 0;
    return 0;
}
