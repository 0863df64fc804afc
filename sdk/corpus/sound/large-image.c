// The image has 150 blocks (CMakeLists.txt has the package for it).
// finds: nothing
#define BLOCKS 150
#define BLOCK_MS 1
#include "base.h"
