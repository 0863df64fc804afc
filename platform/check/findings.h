// What tarnwick-platform-check can find wrong with a set's client libraries: its numbers, and what there is
// to say about each. All of it comes from findings.inc, so that none is without its text.
#ifndef PLATFORM_CHECK_FINDINGS_H
#define PLATFORM_CHECK_FINDINGS_H

#include <string>

#include "common/findings/findings-table.h"

namespace platformcheck
{

enum class FindingId : unsigned int {
// NOLINTNEXTLINE(bugprone-macro-parentheses): an enumerator takes none
#define FINDING(number, name, severity, source, rule, title, cause, cure) name = number,
#include "platform/check/findings.inc"
#undef FINDING
};

using FindingKind = common::FindingKind<FindingId>;
using Rule = common::FindingRule<FindingId>; // of a header, or of the page that is about all of them

const common::FindingsTable<FindingId>& findingsTable(); // "P204"

// docs/platform-findings.md.
std::string findingsDocument();

} // namespace platformcheck

#endif
