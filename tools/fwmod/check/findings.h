// What "fwmod check" can find wrong with a control library: the one table from which its reports, its list
// and docs/findings.md are made.
//
// A number is for ever: reports are kept and searched. A kind that is not found any more leaves its number
// unused.
#ifndef FWMOD_FINDINGS_H
#define FWMOD_FINDINGS_H

#include <string>
#include <vector>

namespace fwmod
{

enum class Severity {
    Error,   // a set would not update the module, or harm would be done
    Warning, // it works, but not as a viewer or another module deserves
};

struct FindingKind {
    unsigned int number; // shown as "F204"; the hundreds are the chapter
    Severity severity;
    const char* title; // one line, no full stop
    const char* cause; // why it matters, and what usually brings it about
    const char* cure;  // what to do
};

struct FindingChapter {
    unsigned int hundred;
    const char* title;
};

const std::vector<FindingChapter>& findingChapters();
const std::vector<FindingKind>& findingKinds(); // by number

// The kind with this number; a number that is not in the table is an error of the program.
const FindingKind& findingKind(unsigned int number);

std::string findingId(unsigned int number); // "F204"

// docs/findings.md.
std::string findingsDocument();

} // namespace fwmod

#endif
