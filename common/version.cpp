#include "common/version.h"

#include "tarnwick-version.h"

namespace common
{

const char* version()
{
    return TARNWICK_VERSION " (commit " TARNWICK_COMMIT ")";
}

} // namespace common
