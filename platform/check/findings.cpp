#include "platform/check/findings.h"

#include <algorithm>
#include <sstream>

namespace platformcheck
{

namespace
{

constexpr const char* kChapters[] = {"The process and every call",
                                     "Settings",
                                     "Power",
                                     "Flags, watchdog, properties, packages, launches",
                                     "Mounts",
                                     "Logs",
                                     "The bus"};

std::vector<FindingId> findingsIn(const char* numbers)
{
    std::vector<FindingId> findings;
    std::istringstream in(numbers);
    for (unsigned int number = 0; in >> number;) {
        findings.push_back(findingWithNumber(number).value());
    }
    return findings;
}

} // namespace

const std::vector<FindingKind>& findingKinds()
{
    static const std::vector<FindingKind> kinds = {
#define FINDING(number, name, severity, source, rule, title, cause, cure)                                    \
    {FindingId::name, common::Severity::severity, source, rule, title, cause, cure},
#include "platform/check/findings.inc"
#undef FINDING
    };
    return kinds;
}

const FindingKind& findingKind(FindingId id)
{
    const std::vector<FindingKind>& kinds = findingKinds(); // has them all, because the ids come from it
    return *std::find_if(kinds.begin(), kinds.end(), [id](const FindingKind& kind) { return kind.id == id; });
}

std::optional<FindingId> findingWithNumber(unsigned int number)
{
    for (const FindingKind& kind : findingKinds()) {
        if (static_cast<unsigned int>(kind.id) == number) {
            return kind.id;
        }
    }
    return std::nullopt;
}

std::string nameOf(FindingId id)
{
    return "P" + std::to_string(static_cast<unsigned int>(id));
}

common::Finding told(FindingId id, const std::vector<std::string>& seen)
{
    const FindingKind& kind = findingKind(id);
    return {nameOf(id), kind.severity, kind.title, kind.cause, kind.cure, seen};
}

const std::vector<Rule>& rules()
{
    static const std::vector<Rule> all = {
#define RULE(source, text, findings, reason) {source, text, findingsIn(findings), reason},
#include "platform/check/rules.inc"
#undef RULE
    };
    return all;
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
    for (const FindingKind& kind : findingKinds()) {
        const unsigned int chapter = static_cast<unsigned int>(kind.id) / 100;
        page.entries.push_back(
            {told(kind.id, {}), kind.rule, std::string("platform/") + kind.source, kChapters[chapter - 1]});
    }
    for (const Rule& rule : rules()) {
        std::vector<std::string> names;
        for (const FindingId id : rule.findings) {
            names.push_back(nameOf(id));
        }
        page.rules.push_back({rule.text, std::string("platform/") + rule.source, names, rule.reason});
    }
    return common::findingsDocument(page);
}

} // namespace platformcheck
