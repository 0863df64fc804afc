// An external module: it has no identifier, and finds its image itself.
// finds: nothing
#define IDENTIFIER ""
#define OWN_doUpdate_decryption
#define OWN_getExpectedTime
#include "base.h"
