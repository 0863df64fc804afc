// checkVersion with a version that is no number: std::stoi throws.
// finds: F217 F303
#include <string>
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    *result = 0;
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    if (chipVersion(active) != 0) {
        return -1;
    }
    const std::string offered(version), installed(active);
    const int major = std::stoi(offered) - std::stoi(installed);
    const int minor = std::stoi(offered.substr(offered.find('.') + 1)) -
                      std::stoi(installed.substr(installed.find('.') + 1));
    unsigned long v[4];
    if (parseVersion(version, v) != 0) {
        return -1;
    }
    const int order = major != 0 ? major : minor;
    *result = (order > 0) - (order < 0);
    return 0;
}
