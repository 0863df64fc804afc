#include "tools/fwmod/check/protocol/findings.h"

#include <algorithm>
#include <sstream>

namespace fwmod
{

namespace
{
constexpr const char* kChapters[] = {"Loading", "Questions and buffers", "Manners in a shared process",
                                     "The update", "Power cuts"};

unsigned int chapterOf(FindingId id)
{
    return static_cast<unsigned int>(id) / 100;
}

std::vector<FindingId> findingsIn(const std::string& numbers)
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
#define FINDING(number, name, severity, rule, title, cause, cure)                                            \
    {FindingId::name, Severity::severity, rule, title, cause, cure},
#include "tools/fwmod/check/protocol/findings.inc"
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

const std::vector<Rule>& rules()
{
    static const std::vector<Rule> all = {
#define RULE(text, findings, reason) {text, findingsIn(findings), reason},
#include "tools/fwmod/check/protocol/rules.inc"
#undef RULE
    };
    return all;
}

std::string nameOf(FindingId id)
{
    return "F" + std::to_string(static_cast<unsigned int>(id));
}

std::string findingsDocument()
{
    constexpr const char* kHeader = "tarnwick/control.h";
    common::FindingsPage page;
    page.head = "# What fwmod check finds\n\n"
                "Made from the checker's own table with `fwmod check --list-findings`; do not edit.\n"
                "An error keeps a module from being updated or does harm; a warning does not.\n";
    page.ruleHead = "What `tarnwick/control.h` asks for, and what is found when it is not kept.";
    for (const FindingKind& kind : findingKinds()) {
        page.entries.push_back({{nameOf(kind.id), kind.severity, kind.title, kind.cause, kind.cure, {}},
                                kind.rule,
                                kHeader,
                                kChapters[chapterOf(kind.id) - 1]});
    }
    for (const Rule& rule : rules()) {
        std::vector<std::string> names;
        for (const FindingId id : rule.findings) {
            names.push_back(nameOf(id));
        }
        page.rules.push_back({rule.text, "", names, rule.reason});
    }
    return common::findingsDocument(page);
}
} // namespace fwmod
