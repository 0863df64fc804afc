// The identifier has no "emp" in it.
// finds: F202
#define IDENTIFIER "Corpus"
#include "base.h"
