// The update takes three seconds; the information file tells one.
// finds: F408 F415
#define BLOCK_MS 200
#include "base.h"
