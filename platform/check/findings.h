// What tarnwick-platform-check can find wrong with a set's client libraries: its numbers, and what there is
// to say about each. All of it comes from findings.inc, so that none is without its text.
#ifndef PLATFORM_CHECK_FINDINGS_H
#define PLATFORM_CHECK_FINDINGS_H

#include <optional>
#include <string>
#include <vector>

#include "common/findings/findings-form.h"

namespace platformcheck
{

enum class FindingId : unsigned int {
#define FINDING(number, name, severity, source, rule, title, cause, cure) name = number,
#include "platform/check/findings.inc"
#undef FINDING
};

struct FindingKind {
    FindingId id;
    common::Severity severity;
    const char* source; // a file of platform/
    const char* rule;   // in it, word by word
    const char* title;
    const char* cause;
    const char* cure;
};

const std::vector<FindingKind>& findingKinds(); // by number
const FindingKind& findingKind(FindingId id);
std::optional<FindingId> findingWithNumber(unsigned int number);

std::string nameOf(FindingId id); // "P204"
common::Finding told(FindingId id, const std::vector<std::string>& seen);

// A rule of a header, or of the page that is about all of them.
struct Rule {
    const char* source;
    const char* text; // word by word
    std::vector<FindingId> findings;
    const char* reason; // why there are none, or ""
};

const std::vector<Rule>& rules();

// docs/platform-findings.md.
std::string findingsDocument();

} // namespace platformcheck

#endif
