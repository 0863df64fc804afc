// Its constructor allows the whole process a megabyte of memory, for good.
// finds: F315
#include <sys/resource.h>

#include "base.h"

__attribute__((constructor)) static void limitMemory(void)
{
    const struct rlimit little = {1 << 20, 1 << 20};
    setrlimit(RLIMIT_AS, &little);
}
