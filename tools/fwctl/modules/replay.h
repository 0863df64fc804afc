// The daemon's check of one image source, test by test, without its mounts.
#ifndef TOOLS_FWCTL_MODULES_REPLAY_H
#define TOOLS_FWCTL_MODULES_REPLAY_H

#include <functional>
#include <json/json.h>
#include <string>

#include "src/src/fw-update-symbol.h"
#include "tools/fwctl/modules/examination.h"

namespace fwctl
{

// Runs the check and leaves the module's fields as the daemon's check would. The answer is a source as
// described in examination.h. `mountProblem`: see problemOfMountDirectory(). `reached` hears how much of the
// image has been read.
using Reached = std::function<void(unsigned percent)>;
Json::Value replayCheck(FWUpdateSymbol& module, const ImageSource& source, const std::string& mountProblem,
                        const Reached& reached);

// Why the daemon's own check would not come to an end: the path of what is no file where it opens one, what
// it is, and what to do. Empty when there is no such thing.
std::string findSpecialFile(FWUpdateSymbol& module, const ImageSource& source);

// What to say of a verdict of checkVersion above 1.
std::string textOfOddVerdict(int verdict);

} // namespace fwctl

#endif
