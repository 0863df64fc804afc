#include "tools/fwmod/images/information.h"

#include <glib.h>
#include <json/json.h>
#include <sstream>

#include "common/daemon/limits.h"
#include "common/files/regular-file.h"
#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/quiet-platform.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
using FindingKind = InformationFinding::Kind;

// ---- What the daemon makes of each value ----

struct Meaning {
    FindingKind kind;
    std::string text;
};

Meaning meaningOfVersion(const Json::Value* value)
{
    if (value == nullptr) {
        return {FindingKind::Warning, "absent: the daemon takes \"0000\"; give the image's version"};
    }
    const std::string taken = value->asString();
    if (taken.find('\0') != std::string::npos) {
        return {FindingKind::Warning,
                "holds a NUL: the module is asked about what stands before it; take it out"};
    }
    if (!value->isString()) {
        return {FindingKind::Warning,
                "not a text: the daemon takes \"" + taken + "\"; put the version in quotes"};
    }
    if (taken.empty()) {
        return {FindingKind::Warning,
                "empty: the module is asked about an empty version; give the image's version"};
    }
    if (g_utf8_validate(taken.data(), static_cast<gssize>(taken.size()), nullptr) == FALSE) {
        return {FindingKind::Warning,
                "no UTF-8, which a JSON file consists of: the module is asked about these bytes as they are; "
                "keep to ASCII, as in 1.1"};
    }
    return {FindingKind::Fine, "offered to the module's checkVersion"};
}

Meaning meaningOfNumber(const Json::Value& value, const std::string& use)
{
    const unsigned int taken = value.asUInt();
    if (value.type() == Json::intValue || value.type() == Json::uintValue) {
        return {FindingKind::Fine, use};
    }
    return {FindingKind::Warning,
            "not a whole number: the daemon takes " + std::to_string(taken) + "; write it as one"};
}

Meaning meaningOfCrc(const Json::Value* value)
{
    if (value == nullptr) {
        return {FindingKind::Warning,
                "absent: the daemon takes 0, which no usual image has; add it (fwmod crc IMAGE)"};
    }
    return meaningOfNumber(*value, "compared with the image's checksum");
}

Meaning meaningOfExpectedTime(const Json::Value* value)
{
    if (value == nullptr) {
        return {FindingKind::Warning,
                "absent: the daemon takes 300 seconds; measure the update and add a margin"};
    }
    constexpr unsigned int kMost = 2147483; // their milliseconds have 31 bits
    Meaning meaning = meaningOfNumber(*value, "seconds; the update is given two more");
    if (value->asUInt() > kMost) {
        return {FindingKind::Warning,
                "more seconds than the daemon can count in milliseconds: it keeps the power for "
                "another time; measure the update and add a margin"};
    }
    if (value->asUInt() == 0) {
        return {FindingKind::Warning, "0 seconds: the update is given only two; measure it and add a margin"};
    }
    return meaning;
}

Meaning meaningOfUiUse(const Json::Value* value)
{
    const std::string none =
        "the daemon takes \"none\": not offered on the screen, and refused in the system image";
    if (value == nullptr) {
        return {FindingKind::Warning, "absent: " + none};
    }
    if (!value->isString()) {
        return {FindingKind::Warning, "not a text: " + none};
    }
    const std::string text = value->asString();
    if (text == "select") {
        return {FindingKind::Fine, "the screen offers the update"};
    }
    if (text == "force") {
        return {FindingKind::Fine, "the screen forces the update"};
    }
    if (text == "none") {
        return {FindingKind::Fine, "not offered on the screen; refused in the system image"};
    }
    return {FindingKind::Warning,
            "unknown: " + none + "; write \"select\", \"force\" or \"none\", in lower case"};
}

struct Key {
    const char* name;
    Meaning (*meaning)(const Json::Value* value);
    const char* expected; // of any value that the daemon can take
};

constexpr Key kKeys[] = {
    {"version", meaningOfVersion, "a text"},
    {"crc", meaningOfCrc, "a whole number from 0 to 4294967295, as fwmod crc prints it"},
    {"expected_time", meaningOfExpectedTime, "a whole number of seconds from 0 to 4294967295"},
    {"ui_use", meaningOfUiUse, "a text"},
};

bool isKnown(const std::string& name)
{
    for (const Key& key : kKeys) {
        if (name == key.name) {
            return true;
        }
    }
    return false;
}

InformationFinding explain(const Key& key, const Json::Value& root)
{
    const Json::Value* value = root.isMember(key.name) ? &root[key.name] : nullptr;
    const std::string written = value == nullptr ? "-" : common::compactJson(*value);
    try {
        const Meaning meaning = key.meaning(value);
        return {meaning.kind, key.name, written, meaning.text};
    } catch (const Json::Exception&) {
        return {FindingKind::Refused, key.name, written,
                std::string("not ") + key.expected + ": the daemon refuses the file; correct the value"};
    }
}

std::vector<InformationFinding> explainAll(const Json::Value& root)
{
    if (!root.isObject() && !root.isNull()) {
        return {{FindingKind::Refused, "-", common::compactJson(root),
                 "no JSON object: write {\"version\": ...}"}};
    }
    std::vector<InformationFinding> findings;
    for (const Key& key : kKeys) {
        findings.push_back(explain(key, root));
    }
    for (const std::string& name : root.getMemberNames()) {
        if (!isKnown(name)) {
            findings.push_back({FindingKind::Warning, name, common::compactJson(root[name]),
                                "the daemon does not read this key"});
        }
    }
    return findings;
}

std::vector<InformationFinding> explainFile(const fs::path& file)
{
    constexpr common::JsonLimits kDaemons{common::kMostInformation, 1000}; // beyond which it takes no file
    std::string why;
    const std::optional<std::string> text = common::readRegularFile(file, kDaemons.bytes, why);
    if (!text) {
        return {{FindingKind::Refused, "-", "-", "it " + why + ": is it the right file?"}};
    }
    if (const std::optional<Json::Value> root = common::parseJson(*text, &why, kDaemons)) {
        std::vector<InformationFinding> findings = explainAll(*root);
        const std::string repeated = common::repeatedKeyIn(*text, kDaemons);
        if (!repeated.empty()) {
            findings.push_back({FindingKind::Warning, "-", "-",
                                "a key stands more than once (" + repeated +
                                    "): the daemon takes its last value; take the others out"});
        }
        return findings;
    }
    const std::string anew = "write the file anew (fwmod info --version ...)";
    return {{FindingKind::Refused, "-", "-",
             text->empty() ? "it is empty: " + anew : "not JSON: " + why + ": correct it, or " + anew}};
}

// ---- The verdict ----

const char* nameOf(FindingKind kind)
{
    switch (kind) {
    case FindingKind::Warning:
        return "warning";
    case FindingKind::Refused:
        return "refused";
    default:
        return "ok";
    }
}
} // namespace

InformationReport checkInformation(const fs::path& file, const std::optional<fs::path>& image)
{
    requireReadable(file);
    InformationReport report{};
    FWUpdateSymbol module("fwmod");
    takeDaemonLog();
    report.accepted = module.loadInformation(file);
    report.log = takeDaemonLog();
    module.cloneFwInformation(report.values);
    report.findings = explainFile(file);
    if (report.accepted && image) {
        compareChecksum(report, imageChecksum(*image), image->filename());
    }
    return report;
}

void compareChecksum(InformationReport& report, unsigned int checksum, const std::string& image)
{
    if (report.values.crc == checksum) {
        report.findings.push_back({FindingKind::Fine, "image", image, "its checksum is \"crc\""});
        return;
    }
    report.accepted = false;
    report.findings.push_back({FindingKind::Refused, "image", image,
                               "its checksum is " + std::to_string(checksum) +
                                   ", not \"crc\": write the file anew (fwmod info --version ...)"});
}

std::string formatInformation(const FWInformation& values)
{
    Json::Value root;
    root["version"] = values.version;
    root["crc"] = static_cast<Json::UInt>(values.crc);
    root["expected_time"] = static_cast<Json::UInt>(values.expected_time);
    root["ui_use"] = values.ui_use;
    return common::indentedJson(root) + "\n";
}

std::string textOf(const InformationFinding& finding)
{
    if (finding.key == "-" && finding.value == "-") { // of the whole file
        return finding.text;
    }
    return common::shortened(finding.key) + " " + common::shortened(finding.value) + ": " + finding.text;
}

std::string formatReport(const fs::path& file, const InformationReport& report)
{
    std::ostringstream out;
    for (const InformationFinding& finding : report.findings) {
        out << common::visible(std::string(nameOf(finding.kind)) + ": " + textOf(finding)) << "\n";
    }
    for (const std::string& line : report.log) {
        out << "the daemon logs: " << common::visible(line) << "\n";
    }
    out << "The daemon " << (report.accepted ? "accepts " : "refuses ") << common::visible(file.string())
        << ".\n";
    return out.str();
}
} // namespace fwmod
