// setContext leaves the module's name in the environment.
// finds: F308
#define OWN_setContext
#include "base.h"

int setContext(const char* name, int caller, char* context)
{
    (void)caller, (void)context;
    return setenv("CORPUS_MODULE", name, 1);
}
