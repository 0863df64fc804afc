// Where libFuzzer enters: the one target that is linked to it.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tests/proof/fuzz/target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::firstTarget()->run({reinterpret_cast<const char*>(data), size});
    return 0;
}
