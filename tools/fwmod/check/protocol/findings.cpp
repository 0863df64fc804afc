#include "tools/fwmod/check/protocol/findings.h"

namespace fwmod
{

const common::FindingsTable<FindingId>& findingsTable()
{
    static const common::FindingsTable<FindingId> table('F',
                                                        {
#define FINDING(number, name, severity, rule, title, cause, cure)                                            \
    {FindingId::name, Severity::severity, "tarnwick/control.h", rule, title, cause, cure},
#include "tools/fwmod/check/protocol/findings.inc"
#undef FINDING
                                                        },
                                                        {
#define RULE(text, findings, reason) {"", text, findings, reason},
#include "tools/fwmod/check/protocol/rules.inc"
#undef RULE
                                                        });
    return table;
}

std::string findingsDocument()
{
    common::FindingsPage page;
    page.head = "# What fwmod check finds\n\n"
                "Made from the checker's own table with `fwmod check --list-findings`; do not edit.\n"
                "An error keeps a module from being updated or does harm; a warning does not.\n";
    page.ruleHead = "What `tarnwick/control.h` asks for, and what is found when it is not kept.";
    findingsTable().fill(page, {"Loading", "Questions and buffers", "Manners in a shared process",
                                "The update", "Power cuts"});
    return common::findingsDocument(page);
}
} // namespace fwmod
