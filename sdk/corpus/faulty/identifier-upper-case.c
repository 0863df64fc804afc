// The identifier has "EMP" in upper case.
// finds: F202
#define IDENTIFIER "EMPCorpus"
#include "base.h"
