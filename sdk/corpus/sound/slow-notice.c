// allUpdateDone takes 500 ms, which is within its second.
// finds: nothing
#define OWN_allUpdateDone
#include "base.h"

int allUpdateDone(void)
{
    pause_ms(500);
    return 0;
}
