// getEMPID is hidden, as a definition without the header is when the library is built that way.
// finds: F103
#include "base.h"

__asm__(".hidden getEMPID");
