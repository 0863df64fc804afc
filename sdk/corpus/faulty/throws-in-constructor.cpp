// The library's object is made when it is loaded, and throws.
// finds: F303
#include <stdexcept>

#include "base.h"

namespace
{
struct Hardware {
    Hardware()
    {
        if (access("/dev/corpus", F_OK) != 0) {
            throw std::runtime_error("no hardware");
        }
    }
} hardware;
} // namespace
