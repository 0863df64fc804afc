#include "tools/fwmod/check/check-report.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "common/findings/findings-form.h"
#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "tools/fwmod/check/protocol/findings.h"

namespace fwmod
{

namespace
{
unsigned int countOf(const ExaminationResult& result, Severity severity)
{
    return static_cast<unsigned int>(std::count_if(
        result.report.findings.begin(), result.report.findings.end(), [severity](const auto& finding) {
            return findingsTable().kind(finding.first).severity == severity;
        }));
}

std::string counted(unsigned int number, const std::string& what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string describeUpdate(const Measured& measured)
{
    if (!measured.duration) {
        return "";
    }
    char duration[32];
    std::snprintf(duration, sizeof duration, "%.1f s", *measured.duration);
    return std::string("The update took ") + duration + "; " +
           counted(measured.proposedExpectedTime.value_or(0), "second") + " is a good expected time.\n";
}

std::string describeWork(const ExaminationResult& result)
{
    std::string text = "Checked with " + counted(result.report.calls, "call");
    if (result.report.measured.writes) {
        text += ", " + counted(*result.report.measured.writes, "write") + " of an update, " +
                counted(result.cuts, "power cut");
    }
    text += ".\n";
    return text + describeUpdate(result.report.measured);
}

std::string verdictOf(const ExaminationResult& result)
{
    if (result.report.findings.empty()) {
        return "sound";
    }
    return hasErrors(result) ? "faulty" : "usable";
}
} // namespace

bool hasErrors(const ExaminationResult& result)
{
    return countOf(result, Severity::Error) > 0;
}

std::string formatForPeople(const std::string& library, const ExaminationResult& result, bool isColoured)
{
    std::string text;
    for (const auto& [id, details] : result.report.findings) {
        text += common::findingForPeople(findingsTable().told(id, details), isColoured);
    }
    if (result.report.calls > 0) {
        text += describeWork(result);
    }
    for (const std::string& note : result.report.notes) {
        text += "Note: " + common::visible(note) + "\n";
    }
    return text + common::sumForPeople(library, countOf(result, Severity::Error),
                                       countOf(result, Severity::Warning), isColoured);
}

std::string formatForPrograms(const std::string& library, const ExaminationResult& result)
{
    Json::Value root;
    root["library"] = library;
    root["verdict"] = verdictOf(result);
    root["findings"] = Json::arrayValue;
    for (const auto& [id, details] : result.report.findings) {
        root["findings"].append(common::findingForPrograms(findingsTable().told(id, details)));
    }
    root["notes"] = Json::arrayValue;
    for (const std::string& note : result.report.notes) {
        root["notes"].append(note);
    }
    Json::Value& measured = root["measured"] = Json::objectValue;
    const auto put = [&measured](const char* name, const auto& value) {
        if (value) {
            measured[name] = *value;
        }
    };
    put("duration", result.report.measured.duration);
    put("proposed_expected_time", result.report.measured.proposedExpectedTime);
    put("writes", result.report.measured.writes);
    put("version_before", result.report.measured.versionBefore);
    put("version_after", result.report.measured.versionAfter);
    measured["calls"] = result.report.calls;
    measured["power_cuts"] = result.cuts;
    return common::indentedJson(root) + "\n";
}

// A case for each error that a library can have; a warning fails none, as it does not fail the check.
std::string formatForJUnit(const std::string& library, const ExaminationResult& result, double seconds)
{
    std::vector<common::TestCase> cases;
    for (const FindingKind& kind : findingsTable().kinds()) {
        if (kind.severity == Severity::Warning) {
            continue;
        }
        common::TestCase one{"not " + findingsTable().nameOf(kind.id) + ": " + kind.title,
                             cases.empty() ? seconds : 0,
                             {},
                             ""};
        const auto found = result.report.findings.find(kind.id);
        if (found != result.report.findings.end()) {
            one.findings.push_back(findingsTable().told(kind.id, found->second));
        }
        cases.push_back(std::move(one));
    }
    return common::junitReport("fwmod check " + library, cases);
}
} // namespace fwmod
