// A thread's own locale, put back and freed.
// finds: nothing
#include <locale.h>
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    locale_t plain = newlocale(LC_ALL_MASK, "C", (locale_t)0);
    if (plain == (locale_t)0) {
        return -1;
    }
    locale_t before = uselocale(plain);
    int done = chipVersion(active) != 0 ? -1 : compareVersions(version, active, result);
    int kept = errno;
    uselocale(before);
    freelocale(plain);
    errno = kept;
    return done;
}
