// There is no getUpdateProgress: it is optional.
// finds: nothing
#define OWN_getUpdateProgress
#include "base.h"
