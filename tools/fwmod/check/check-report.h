// What "fwmod check" prints: for people, with cause and cure of each finding, as JSON, or as JUnit.
#ifndef TOOLS_FWMOD_CHECK_CHECK_REPORT_H
#define TOOLS_FWMOD_CHECK_CHECK_REPORT_H

#include <string>

#include "tools/fwmod/check/examination.h"

namespace fwmod
{

bool hasErrors(const ExaminationResult& result); // warnings do not count

// `isColoured`: with a terminal's colours.
std::string formatForPeople(const std::string& library, const ExaminationResult& result, bool isColoured);
std::string formatForPrograms(const std::string& library, const ExaminationResult& result);
// `seconds`: what the examination took.
std::string formatForJUnit(const std::string& library, const ExaminationResult& result, double seconds);

} // namespace fwmod

#endif
