// allUpdateDone sets the progress back, also while an update is at work.
// finds: F405
#define OWN_allUpdateDone
#include "base.h"

int allUpdateDone(void)
{
    setProgress(0);
    return 0;
}
