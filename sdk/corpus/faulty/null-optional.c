// getExpectedTime is chosen when the library is loaded, and the choice may be none.
// finds: F105
#define OWN_getExpectedTime
#include "base.h"

typedef int ExpectedTime(int*);

__attribute__((used)) static ExpectedTime* choose(void)
{
    return NULL;
}

TARNWICK_CONTROL_EXPORT int getExpectedTime(int*) __attribute__((ifunc("choose")));
