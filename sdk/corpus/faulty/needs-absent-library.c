// Linked to a library that is not installed on the set (CMakeLists.txt).
// finds: F107
#define OWN_allUpdateDone
#include "base.h"

int vendorFlush(void);

int allUpdateDone(void)
{
    return vendorFlush();
}
