// What a checker can find, and the rules that stand behind it, as a table: rows made from its findings.inc
// and rules.inc. `Id` is the checker's enumeration of numbers, which come from the same rows. Nothing changes
// once it is made; any thread.
#ifndef COMMON_FINDINGS_FINDINGS_TABLE_H
#define COMMON_FINDINGS_FINDINGS_TABLE_H

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "common/findings/findings-form.h"

namespace common
{

template <typename Id>
struct FindingKind {
    Id id;
    Severity severity;
    const char* source; // the file where the rule stands
    const char* rule;   // in it, word by word
    const char* title;
    const char* cause;
    const char* cure;
};

template <typename Id>
struct FindingRule {
    const char* source; // "" when there is but one
    const char* text;   // word by word
    std::vector<Id> findings;
    const char* reason; // why there are none, or ""
};

template <typename Id>
class FindingsTable
{
public:
    // A rule as it stands in rules.inc: its findings are numbers with blanks between them.
    struct RuleRow {
        const char* source;
        const char* text;
        const char* findings;
        const char* reason;
    };

    // Throws std::bad_optional_access when a rule names a number that is none.
    FindingsTable(char letter, std::vector<FindingKind<Id>> kinds, const std::vector<RuleRow>& rules)
        : letter_(letter), kinds_(std::move(kinds))
    {
        for (const RuleRow& row : rules) {
            rules_.push_back({row.source, row.text, idsIn(row.findings), row.reason});
        }
    }

    const std::vector<FindingKind<Id>>& kinds() const { return kinds_; } // by number
    const std::vector<FindingRule<Id>>& rules() const { return rules_; }

    const FindingKind<Id>& kind(Id id) const // it has them all, because the ids come from it
    {
        return *std::find_if(kinds_.begin(), kinds_.end(), [id](const auto& kind) { return kind.id == id; });
    }

    std::optional<Id> withNumber(unsigned int number) const
    {
        for (const FindingKind<Id>& kind : kinds_) {
            if (static_cast<unsigned int>(kind.id) == number) {
                return kind.id;
            }
        }
        return std::nullopt;
    }

    std::string nameOf(Id id) const { return letter_ + std::to_string(static_cast<unsigned int>(id)); }

    Finding told(Id id, const std::vector<std::string>& seen) const
    {
        const FindingKind<Id>& row = kind(id);
        return {nameOf(id), row.severity, row.title, row.cause, row.cure, seen};
    }

    // Both tables, as a page has them; `chapters` are by hundreds, from the first on.
    void fill(FindingsPage& page, const std::vector<std::string>& chapters) const
    {
        for (const FindingKind<Id>& row : kinds_) {
            const std::size_t chapter = static_cast<unsigned int>(row.id) / 100;
            page.entries.push_back({told(row.id, {}), row.rule, row.source, chapters.at(chapter - 1)});
        }
        for (const FindingRule<Id>& rule : rules_) {
            std::vector<std::string> names;
            for (const Id id : rule.findings) {
                names.push_back(nameOf(id));
            }
            page.rules.push_back({rule.text, rule.source, names, rule.reason});
        }
    }

private:
    std::vector<Id> idsIn(const char* numbers) const
    {
        std::vector<Id> ids;
        std::istringstream in(numbers);
        for (unsigned int number = 0; in >> number;) {
            ids.push_back(withNumber(number).value());
        }
        return ids;
    }

    char letter_;
    std::vector<FindingKind<Id>> kinds_;
    std::vector<FindingRule<Id>> rules_;
};

} // namespace common

#endif
