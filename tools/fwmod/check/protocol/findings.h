// What "fwmod check" can find wrong with a control library: its numbers, and what there is to say about each.
// All of it comes from findings.inc, so that a number cannot be mistyped and none is without its text.
#ifndef TOOLS_FWMOD_CHECK_PROTOCOL_FINDINGS_H
#define TOOLS_FWMOD_CHECK_PROTOCOL_FINDINGS_H

#include <string>

#include "common/findings/findings-table.h"

namespace fwmod
{

enum class FindingId : unsigned int {
// NOLINTNEXTLINE(bugprone-macro-parentheses): an enumerator takes none
#define FINDING(number, name, severity, rule, title, cause, cure) name = number,
#include "tools/fwmod/check/protocol/findings.inc"
#undef FINDING
};

// Something found, and what exactly was seen.
struct Finding {
    FindingId id;
    std::string detail;
};

using common::Severity;
using FindingKind = common::FindingKind<FindingId>;
using Rule = common::FindingRule<FindingId>; // of tarnwick/control.h

const common::FindingsTable<FindingId>& findingsTable(); // "F204"

// docs/findings.md.
std::string findingsDocument();

} // namespace fwmod

#endif
