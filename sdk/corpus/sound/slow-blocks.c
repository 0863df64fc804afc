// Slow blocks, nearly as slow as the information file says.
// finds: nothing
#define BLOCK_US 90000
#define OWN_getExpectedTime
#include "chip.h"

int getExpectedTime(int* out)
{
    *out = 12;
    return 0;
}
