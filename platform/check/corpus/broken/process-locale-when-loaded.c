/* The library sets a locale while it is loaded.
 *
 * Rule: platform/README.md: the locale is the daemon's and stays as it is.
 * Seen: in main() the locale is another one than "C". */
#include <locale.h>

__attribute__((constructor)) static void start(void)
{
    setlocale(LC_ALL, "C.UTF-8");
}
