// Something found: its number in fwmod's table, and what exactly was seen.
#ifndef EXAMINER_FINDING_H
#define EXAMINER_FINDING_H

#include <string>

struct Finding {
    unsigned int number;
    std::string detail;
};

#endif
