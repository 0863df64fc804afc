// The update takes longer than the information file says.
// finds: F408
#define BLOCK_US 400000
#include "chip.h"
