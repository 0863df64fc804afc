// Everything that the examination has brought, for fwmod: one JSON object on one line of standard output.
#ifndef EXAMINER_REPORT_H
#define EXAMINER_REPORT_H

#include "tools/fwmod/check/examiner/finding.h"

#include <json/json.h>
#include <map>
#include <string>
#include <vector>

namespace examiner
{

class Report
{
public:
    void add(const Finding& finding);
    void add(const std::vector<Finding>& findings);
    bool has(unsigned int number) const { return findings_.count(number) != 0; }

    // What could not be checked, and what to do about it.
    void note(const std::string& text) { notes_.push_back(text); }
    void measure(const std::string& key, const Json::Value& value) { measured_[key] = value; }

    Json::Value toJson() const;

private:
    std::map<unsigned int, std::vector<std::string>> findings_; // what was seen, once each
    std::vector<std::string> notes_;
    Json::Value measured_ = Json::objectValue;
};

// A line of standard output.
void printLine(const Json::Value& value);

} // namespace examiner

#endif
