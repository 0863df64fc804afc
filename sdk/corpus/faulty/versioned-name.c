// The file is called versioned-name.so.1 (CMakeLists.txt), which the daemon does not look at.
// finds: F102
#include "base.h"
