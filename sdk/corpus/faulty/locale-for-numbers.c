// checkVersion sets the process's locale.
// finds: F307
#include <locale.h>
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    setlocale(LC_ALL, "C.UTF-8");
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0) {
        return -1;
    }
    return compareVersions(version, active, result);
}
