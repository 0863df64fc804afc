#include "tests/proof/crashes/exceptions.h"

#include <algorithm>

namespace proof
{

const std::vector<CrashException>& crashExceptions()
{
    static const std::vector<CrashException> all = {
        {"exit", "error while loading shared libraries", "", "",
         "the loader did not get what it needs, and says so: there was no daemon yet"},
        {"exit", "of which it had no event", "", "",
         "a daemon that the platform has refused the event of power-off ends with its set, as it is known to"},
        {"exit", "GLib-ERROR", "", "",
         "GLib itself ends a process that gets no thread or no descriptor for what its loops stand on"},
    };
    return all;
}

const CrashException* crashExceptionOf(const CrashBreach& breach, const Point& point)
{
    const auto fits = [&](const CrashException& exception) {
        const std::string calls = std::string(" ") + exception.calls + " ";
        return breach.promise == exception.promise && breach.text.find(exception.text) != std::string::npos &&
               (*exception.calls == '\0' || calls.find(" " + point.call.name + " ") != std::string::npos) &&
               (*exception.error == '\0' || point.error == exception.error);
    };
    const auto found = std::find_if(crashExceptions().begin(), crashExceptions().end(), fits);
    const bool isAllowed = point.fault == FaultKind::kFailing && found != crashExceptions().end();
    return isAllowed ? &*found : nullptr;
}

} // namespace proof
