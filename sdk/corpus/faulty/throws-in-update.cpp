// A failed write is thrown out of doUpdate.
// finds: F303
#define OWN_switchTo
#include <system_error>

#include "base.h"

static inline int switchTo(int, int)
{
    throw std::system_error(EIO, std::generic_category(), "hardware");
}
