// allUpdateDone has a parameter of its own in C++: the daemon never calls it, and nothing tells.
// finds: F104
#define OWN_allUpdateDone
#include "base.h"

TARNWICK_CONTROL_EXPORT int allUpdateDone(bool successful)
{
    return successful ? 0 : fail(EIO);
}
