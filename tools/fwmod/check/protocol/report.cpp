#include "tools/fwmod/check/protocol/report.h"

#include <algorithm>

namespace fwmod
{

void Report::add(const Finding& finding)
{
    std::vector<std::string>& details = findings[finding.id];
    if (std::find(details.begin(), details.end(), finding.detail) == details.end()) {
        details.push_back(finding.detail);
    }
}

void Report::add(const std::vector<Finding>& all)
{
    for (const Finding& finding : all) {
        add(finding);
    }
}
} // namespace fwmod
