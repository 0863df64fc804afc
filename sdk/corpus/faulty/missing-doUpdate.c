// doUpdate is left out.
// finds: F103
#define OWN_doUpdate
#include "base.h"
