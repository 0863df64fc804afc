/* The compiler has counts written where exit() passes. The daemon ends by quick_exit(), a child of a test by
 * _exit(). */
#include <stdlib.h>

void __gcov_dump(void);
void __real__exit(int status);
void __wrap__exit(int status);

void __wrap__exit(int status)
{
    __gcov_dump();
    __real__exit(status);
}

__attribute__((constructor)) static void arrange(void)
{
    at_quick_exit(__gcov_dump);
}
