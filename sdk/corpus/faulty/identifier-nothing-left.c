// The identifier is "emp", which leaves no name for the firmware.
// finds: F202
#define IDENTIFIER "emp"
#include "base.h"
