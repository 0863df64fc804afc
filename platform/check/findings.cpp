#include "platform/check/findings.h"

namespace platformcheck
{

const common::FindingsTable<FindingId>& findingsTable()
{
    static const common::FindingsTable<FindingId> table('P',
                                                        {
#define FINDING(number, name, severity, source, rule, title, cause, cure)                                    \
    {FindingId::name, common::Severity::severity, "platform/" source, rule, title, cause, cure},
#include "platform/check/findings.inc"
#undef FINDING
                                                        },
                                                        {
#define RULE(source, text, findings, reason) {"platform/" source, text, findings, reason},
#include "platform/check/rules.inc"
#undef RULE
                                                        });
    return table;
}

std::string findingsDocument()
{
    common::FindingsPage page;
    page.head =
        "# What tarnwick-platform-check finds\n\n"
        "Made from the checker's own table with `tarnwick-platform-check --list-findings`; do not edit.\n"
        "An error keeps the daemon from its work or does harm; a warning does not.\n"
        "The rules stand in the headers of `platform/include/`, and in `platform/README.md` what holds for all.\n";
    page.ruleHead = "What the daemon relies on, and what is found when it does not hold.";
    findingsTable().fill(page,
                         {"The process and every call", "Settings", "Power",
                          "Flags, watchdog, properties, packages, launches", "Mounts", "Logs", "The bus"});
    return common::findingsDocument(page);
}

} // namespace platformcheck
