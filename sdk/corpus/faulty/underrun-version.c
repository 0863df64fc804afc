// getActiveVersion trims its answer from the end, and goes on before the beginning of an empty one.
// finds: F204
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    char* last = out - 1; // of an answer that is not there yet
    *last = '\0';
    return readVersion(out);
}
