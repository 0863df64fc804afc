// There is no getUpdateProgress.
// finds: F404
#define OWN_getUpdateProgress
#include "base.h"
