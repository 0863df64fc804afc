// std::stoi throws for a text that is no version, and nobody catches it.
// finds: F209 F217 F303
#define OWN_compareVersion
#include <string>

#include "base.h"

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    if (readVersion(installed) != 0) {
        return -1;
    }
    const int theirs = std::stoi(offered) * 100 + std::stoi(std::string(offered).substr(2));
    const int ours = std::stoi(installed) * 100 + std::stoi(std::string(installed).substr(2));
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
}
