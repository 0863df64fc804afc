// An update takes some milliseconds.
// finds: F403
#define BLOCK_US 0
#define RESTART_US 0
#include "chip.h"
