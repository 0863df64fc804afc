// The daemon's check of one image source, test by test, without its mounts.
#ifndef FWCTL_REPLAY_H
#define FWCTL_REPLAY_H

#include "examination.h"
#include "isolated.h"

#include "fw-update-symbol.h"

// Runs the check and leaves the module's fields as the daemon's check would. The answer is a source as
// described in examination.h.
Json::Value replayCheck(FWUpdateSymbol& module, const ImageSource& source, Telling& telling);

#endif
