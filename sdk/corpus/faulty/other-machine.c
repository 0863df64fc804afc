// Built for another processor; CMakeLists.txt writes another machine into the ELF header.
// finds: F101
#include "base.h"
