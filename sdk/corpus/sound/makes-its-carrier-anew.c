// The image is handed over in a file that each update makes anew, and that nobody flushes.
// finds: nothing
// runs: whole
#define OWN_install
#include "carrier.h"

static inline int carry(void)
{
    return writeCarrier();
}
