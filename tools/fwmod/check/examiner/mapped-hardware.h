// Hardware that is written through mapped memory. Stores are not seen, so the power cannot be cut at them;
// but at each flush it shows what they have changed, and any part of that may be lost at a cut.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MAPPED_HARDWARE_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MAPPED_HARDWARE_H

#include <optional>

#include "tools/fwmod/check/examiner/machine/machine.h"
#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

// What is mapped for writing when this flush waits. Nothing when no file of the hardware is.
std::optional<MappedFlush> mappedFlushOf(const vset::HardwareWrite& write, const SeenWrite& seen,
                                         const Machine& machine);

// Power cuts at the flushes, each with some of what was stored before it.
void cutMappedHardware(Supervisor& supervisor, Report& report);

} // namespace fwmod::examiner

#endif
