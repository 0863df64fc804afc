// getActiveVersion lets the hardware restart before it asks.
// finds: F214
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    pause_ms(1300);
    return readVersion(out);
}
