// The image lies in the system image, not in a package (CMakeLists.txt checks it with --firmware).
// finds: nothing
#include "base.h"
