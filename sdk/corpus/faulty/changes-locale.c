// setContext chooses a locale for the whole process.
// finds: F307
#define OWN_setContext
#include <locale.h>

#include "base.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name, (void)caller, (void)context;
    setlocale(LC_ALL, "C.UTF-8");
    return 0;
}
