// checkVersion calls itself for ever when a text is no version.
// finds: F302
#define OWN_checkVersion
#include "base.h"

// What the fault is about, and both compilers see it coming.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Winfinite-recursion"
#elif defined(__GNUC__) && __GNUC__ >= 12
#pragma GCC diagnostic ignored "-Winfinite-recursion"
#endif

static int skipLetters(const char* text)
{
    volatile char kept[4096]; // keeps the call from becoming a loop
    kept[0] = text[0];
    return skipLetters(text) + kept[0];
}

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    unsigned int number = 0;
    if (parseVersion(version, &number) != 0) {
        return skipLetters(version);
    }
    return compareVersion(version, result);
}
