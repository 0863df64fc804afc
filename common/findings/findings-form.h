// The one form in which our checkers tell what they have found: for people, as JSON, as JUnit, and the page
// of all that can be found. A finding has a number for ever, what was seen, a cause and a cure.
#ifndef COMMON_FINDINGS_FINDINGS_FORM_H
#define COMMON_FINDINGS_FINDINGS_FORM_H

#include <filesystem>
#include <json/value.h>
#include <string>
#include <vector>

namespace common
{

enum class Severity { Error, Warning };

struct Finding {
    std::string name; // "F204"
    Severity severity = Severity::Error;
    std::string title;
    std::string cause;
    std::string cure;
    std::vector<std::string> seen; // once each; texts of others are made visible when they are shown
};

// `isColoured`: with a terminal's colours.
std::string findingForPeople(const Finding& finding, bool isColoured);
Json::Value findingForPrograms(const Finding& finding); // an object

// Whether standard output is a terminal whose user has not refused colours.
bool isColourWanted();

// The last line of a report: green when nothing was found, else red or yellow.
std::string sumForPeople(const std::string& checked, unsigned int errors, unsigned int warnings,
                         bool isColoured);

// ---- JUnit ----

struct TestCase {
    std::string name;
    double seconds = 0;
    std::vector<Finding> findings; // that make it a failed one
    std::string skipped;           // why, when it was
};

std::string junitReport(const std::string& suite, const std::vector<TestCase>& cases);

// Before the work: throws Failure when it is known already that the report could not be written there.
void requireWritable(const std::filesystem::path& file);

// Throws Failure when the file cannot be written: what was there before stays, or none is there; only where
// nothing can be put beside it, it is empty then. Waits for nobody to read a pipe.
void writeReport(const std::filesystem::path& file, const std::string& text);

// ---- The page of all findings ----

struct FindingsPage {
    struct Entry {
        Finding finding;
        std::string rule;   // word by word
        std::string source; // the file where the rule stands
        std::string chapter;
    };
    struct Rule {
        std::string text;
        std::string source;             // "" when there is but one
        std::vector<std::string> names; // of findings
        std::string reason;             // why there are none
    };
    std::string head; // heading and what stands below it, with its line ends
    std::string ruleHead;
    std::vector<Entry> entries;
    std::vector<Rule> rules;
};

std::string findingsDocument(const FindingsPage& page);

} // namespace common

#endif
