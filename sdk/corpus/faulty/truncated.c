// The file ends in its middle, as after a copy to a full disk; CMakeLists.txt cuts it off.
// finds: F101
#include "base.h"
