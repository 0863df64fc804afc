// The identifier has a hyphen in it.
// finds: F202
#define IDENTIFIER "emp-Corpus"
#include "base.h"
