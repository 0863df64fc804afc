// Something found: its number in fwmod's table, and what exactly was seen.
#ifndef EXAMINER_FINDING_H
#define EXAMINER_FINDING_H

#include <string>

namespace examiner
{

struct Finding {
    unsigned int number;
    std::string detail;
};

} // namespace examiner

#endif
