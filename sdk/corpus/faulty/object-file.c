// Compiled but not linked: an object file with a library's name, as CMakeLists.txt leaves it.
// finds: F101
#include "base.h"
