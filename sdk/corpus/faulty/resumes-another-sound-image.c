// An update that was cut off is gone on with, whichever image it was of: only one that is sound can show it.
// finds: F502
#define OWN_writeSlot
#include "notes.h"
