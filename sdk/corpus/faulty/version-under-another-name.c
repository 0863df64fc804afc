// The version's function is called getVersion.
// finds: F103 F109
#define OWN_getActiveVersion
#include "chip.h"

TARNWICK_CONTROL_EXPORT int getVersion(char* out)
{
    return chipVersion(out);
}
