// Exceptions are thrown for every odd text, and caught before the daemon could see them.
// finds: nothing
#define OWN_compareVersion
#include <stdexcept>
#include <string>

#include "base.h"

static int number(const std::string& text)
{
    size_t used = 0;
    const int major = std::stoi(text, &used);
    if (major < 0 || text.at(used) != '.') {
        throw std::invalid_argument(text);
    }
    const std::string rest = text.substr(used + 1);
    const int minor = std::stoi(rest, &used);
    if (minor < 0 || used != rest.size()) {
        throw std::invalid_argument(text);
    }
    return major * 1000 + minor;
}

static inline int compareVersion(const char* offered, int* verdict)
try {
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    if (readVersion(installed) != 0) {
        return -1;
    }
    const int theirs = number(offered);
    const int ours = number(installed);
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
} catch (const std::exception&) {
    return fail(EINVAL);
}
