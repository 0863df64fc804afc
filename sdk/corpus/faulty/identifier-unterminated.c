// strncpy with the exact size leaves out the terminator of an identifier that is too long.
// finds: F203
#define OWN_getEMPID
#include "base.h"

// What the fault is about; only GCC sees it coming.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wstringop-truncation"
#endif

int getEMPID(char* out)
{
    char identifier[200];
    memset(identifier, 'x', sizeof identifier - 1);
    identifier[sizeof identifier - 1] = '\0';
    memcpy(identifier, "emp", 3);
    strncpy(out, identifier, TARNWICK_CONTROL_TEXT_SIZE);
    return 0;
}
