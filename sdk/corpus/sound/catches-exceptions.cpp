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
    return major * 1000 + std::stoi(text.substr(used + 1));
}

static inline int compareVersion(const char* offered, int* verdict)
try {
    std::string installed(TARNWICK_CONTROL_TEXT_SIZE, '\0');
    if (readVersion(&installed[0]) != 0) {
        return -1;
    }
    const int theirs = number(offered);
    const int ours = number(installed);
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
} catch (const std::exception&) {
    return fail(EINVAL);
}
