#include "tools/fwmod/check/examiner/report.h"

#include <algorithm>
#include <cstdio>

namespace examiner
{

void Report::add(const Finding& finding)
{
    std::vector<std::string>& details = findings_[finding.number];
    if (std::find(details.begin(), details.end(), finding.detail) == details.end())
        details.push_back(finding.detail);
}

void Report::add(const std::vector<Finding>& findings)
{
    for (const Finding& finding : findings)
        add(finding);
}

Json::Value Report::toJson() const
{
    Json::Value root;
    root["findings"] = Json::arrayValue;
    for (const auto& [number, details] : findings_) {
        Json::Value entry;
        entry["number"] = number;
        entry["details"] = Json::arrayValue;
        for (const std::string& detail : details)
            entry["details"].append(detail);
        root["findings"].append(entry);
    }
    root["notes"] = Json::arrayValue;
    for (const std::string& note : notes_)
        root["notes"].append(note);
    root["measured"] = measured_;
    return root;
}

void printLine(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::puts(Json::writeString(writer, value).c_str());
    std::fflush(stdout);
}
} // namespace examiner
