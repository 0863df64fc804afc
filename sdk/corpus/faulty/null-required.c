// checkVersion is an absolute symbol that the linker script of a vendor's tool sets to 0.
// finds: F105
#define OWN_checkVersion
#include "base.h"

__asm__(".globl checkVersion\n.set checkVersion, 0");
