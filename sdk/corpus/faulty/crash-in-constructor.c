// A constructor follows a null pointer.
// finds: F302
#include "base.h"

static int* volatile registers;

__attribute__((constructor)) static void start(void)
{
    *registers = 1;
}
