#include "tests/proof/crashes/exceptions.h"

#include <algorithm>

namespace proof
{

const std::vector<CrashException>& crashExceptions()
{
    static const std::vector<CrashException> all = {
        {"exit", " in its loader: ", "the loader did not get what it needs: there was no daemon yet"},
        {"exit", "of which it had no event",
         "a daemon that did not get on the bus, or whose connection broke, hears of no power: it ends with its set"},
        {"exit", "GLib-ERROR",
         "GLib itself ends a process that gets no thread or no descriptor for what its loops stand on"},
    };
    return all;
}

const CrashException* crashExceptionOf(const CrashBreach& breach, const Point& point)
{
    const auto fits = [&](const CrashException& exception) {
        return breach.promise == exception.promise && breach.text.find(exception.text) != std::string::npos;
    };
    const auto found = std::find_if(crashExceptions().begin(), crashExceptions().end(), fits);
    const bool isAllowed = point.fault == FaultKind::kFailing && found != crashExceptions().end();
    return isAllowed ? &*found : nullptr;
}

} // namespace proof
