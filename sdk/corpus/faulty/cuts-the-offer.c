// checkVersion cuts the offered version at its dot, with strtok.
// finds: F302
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    unsigned long v[4], w[4] = {0};
    char active[TARNWICK_CONTROL_TEXT_SIZE], *save = NULL;
    *result = 0;
    if (chipVersion(active) != 0 || parseVersion(active, v) != 0 || parseVersion(version, w) != 0) {
        return -1;
    }
    int i = 0, order = 0;
    for (char* part = strtok_r((char*)version, ".", &save); part != NULL; part = strtok_r(NULL, ".", &save)) {
        w[i++] = strtoul(part, NULL, 10);
    }
    for (i = 0; i < 4 && order == 0; i++) {
        order = (w[i] > v[i]) - (w[i] < v[i]);
    }
    *result = order;
    return 0;
}
