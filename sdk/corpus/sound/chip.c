// The chip that is one file, as chip.h has it.
// finds: nothing
#include "chip.h"
