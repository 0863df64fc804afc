// What "fwmod check" can find wrong with a control library: its numbers, and what there is to say about each.
// All of it comes from findings.inc, so that a number cannot be mistyped and none is without its text.
#ifndef TOOLS_FWMOD_CHECK_PROTOCOL_FINDINGS_H
#define TOOLS_FWMOD_CHECK_PROTOCOL_FINDINGS_H

#include <optional>
#include <string>
#include <vector>

#include "common/findings/findings-form.h"

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

struct FindingKind {
    FindingId id;
    Severity severity;
    const char* rule; // of tarnwick/control.h, word by word
    const char* title;
    const char* cause;
    const char* cure;
};

const std::vector<FindingKind>& findingKinds(); // by number
const FindingKind& findingKind(FindingId id);
std::optional<FindingId> findingWithNumber(unsigned int number);

std::string nameOf(FindingId id); // "F204"

// A rule of tarnwick/control.h.
struct Rule {
    const char* text; // word by word
    std::vector<FindingId> findings;
    const char* reason; // why there are none, or ""
};

const std::vector<Rule>& rules(); // in the header's order, or nearly

// docs/findings.md.
std::string findingsDocument();

} // namespace fwmod

#endif
