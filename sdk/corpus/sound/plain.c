// Nothing is wrong: the base as it is, in C.
// finds: nothing
#include "base.h"
