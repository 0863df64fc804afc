#include "tools/fwmod/check/check-report.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "tools/fwmod/check/protocol/findings.h"

namespace fwmod
{

namespace
{
constexpr std::size_t kWidth = 100;
constexpr std::size_t kIndent = 11; // of what stands under a finding's title
constexpr std::size_t kMostDetails = 5;

enum class Colour { Red = 31, Green = 32, Yellow = 33 };

std::string coloured(const std::string& text, Colour colour, bool isColoured)
{
    if (!isColoured) {
        return text;
    }
    return "\033[1;" + std::to_string(static_cast<int>(colour)) + "m" + text + "\033[0m";
}

// "    cause  text ...", wrapped, with the lines after the first one under the text.
std::string paragraph(const std::string& label, const std::string& text)
{
    std::string result;
    std::string line = "    " + label + std::string(kIndent - 4 - label.size(), ' ');
    std::istringstream words(text);
    bool isFirst = true;
    for (std::string word; words >> word; isFirst = false) {
        if (!isFirst && line.size() + 1 + word.size() > kWidth) {
            result += line + "\n";
            line = std::string(kIndent, ' ') + word;
            continue;
        }
        line += (isFirst ? "" : " ") + word;
    }
    return result + line + "\n";
}

const char* nameOf(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

std::vector<std::string> shortened(std::vector<std::string> details)
{
    if (details.size() <= kMostDetails) {
        return details;
    }
    const std::size_t rest = details.size() - kMostDetails + 1;
    details.resize(kMostDetails - 1);
    details.push_back("and " + std::to_string(rest) + " more like these");
    return details;
}

std::string formatFinding(const FindingKind& kind, const std::vector<std::string>& details, bool isColoured)
{
    const bool isError = kind.severity == Severity::Error;
    std::string text = coloured(nameOf(kind.id) + " " + nameOf(kind.severity),
                                isError ? Colour::Red : Colour::Yellow, isColoured) +
                       ": " + kind.title + "\n";
    const char* label = "seen";
    for (const std::string& detail : shortened(details)) {
        text += paragraph(label, common::visible(detail));
        label = "";
    }
    return text + paragraph("cause", kind.cause) + paragraph("cure", kind.cure) + "\n";
}

unsigned int countOf(const ExaminationResult& result, Severity severity)
{
    return static_cast<unsigned int>(std::count_if(
        result.report.findings.begin(), result.report.findings.end(),
        [severity](const auto& finding) { return findingKind(finding.first).severity == severity; }));
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
        text += formatFinding(findingKind(id), details, isColoured);
    }
    if (result.report.calls > 0) {
        text += describeWork(result);
    }
    for (const std::string& note : result.report.notes) {
        text += "Note: " + common::visible(note) + "\n";
    }
    const std::string shown = common::visible(library);
    const unsigned int errors = countOf(result, Severity::Error);
    const unsigned int warnings = countOf(result, Severity::Warning);
    if (errors + warnings == 0) {
        return text + coloured(shown + ": sound, nothing was found.", Colour::Green, isColoured) + "\n";
    }
    const std::string sum =
        shown + ": " + counted(errors, "error") + ", " + counted(warnings, "warning") + ".";
    return text + coloured(sum, errors > 0 ? Colour::Red : Colour::Yellow, isColoured) + "\n";
}

std::string formatForPrograms(const std::string& library, const ExaminationResult& result)
{
    Json::Value root;
    root["library"] = library;
    root["verdict"] = verdictOf(result);
    root["findings"] = Json::arrayValue;
    for (const auto& [id, details] : result.report.findings) {
        const FindingKind& kind = findingKind(id);
        Json::Value entry;
        entry["id"] = nameOf(id);
        entry["severity"] = nameOf(kind.severity);
        entry["title"] = kind.title;
        std::string joined;
        for (const std::string& detail : shortened(details)) {
            joined += (joined.empty() ? "" : "; ") + detail;
        }
        entry["detail"] = joined;
        entry["cause"] = kind.cause;
        entry["cure"] = kind.cure;
        root["findings"].append(entry);
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
} // namespace fwmod
