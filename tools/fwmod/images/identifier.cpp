#include "tools/fwmod/images/identifier.h"

#include <algorithm>
#include <tarnwick/control.h>

#include "common/terminal/visible-text.h"
#include "tools/fwmod/commands/command.h"

namespace fwmod
{

bool isAsciiAlphanumeric(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string firmwareName(const std::string& identifier, const std::string& source)
{
    if (!std::all_of(identifier.begin(), identifier.end(), isAsciiAlphanumeric)) {
        throw common::WrongUse(source + " " + common::shortened(identifier) +
                               ": the daemon refuses anything but ASCII letters and digits");
    }
    if (identifier.size() >= TARNWICK_CONTROL_TEXT_SIZE) {
        throw common::WrongUse(source +
                               " is too long: at most 127 characters, getEMPID has room for no more");
    }
    const std::size_t at = identifier.find("emp");
    if (at == std::string::npos) {
        throw common::WrongUse(source + " " + common::shortened(identifier) +
                               ": it must contain \"emp\" in lower case, as in empTuner");
    }
    std::string name = std::string(identifier).erase(at, 3);
    if (name.empty()) {
        throw common::WrongUse(source +
                               " emp: nothing is left to name the firmware; use something like empTuner");
    }
    return name;
}
} // namespace fwmod
