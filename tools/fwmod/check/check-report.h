// What "fwmod check" prints: for people, with cause and cure of each finding, or as JSON.
#ifndef FWMOD_CHECK_REPORT_H
#define FWMOD_CHECK_REPORT_H

#include "tools/fwmod/check/examination.h"

#include <string>

namespace fwmod
{

bool hasErrors(const ExaminationResult& result); // warnings do not count

// `isColoured`: with a terminal's colours.
std::string formatForPeople(const std::string& library, const ExaminationResult& result, bool isColoured);
std::string formatForPrograms(const std::string& library, const ExaminationResult& result);

} // namespace fwmod

#endif
