// Which writes and flushes of an update are to fail or to go wrong, as one that nothing disturbed has shown.
#ifndef TOOLS_FWMOD_CHECK_PROTOCOL_FAULT_PLACES_H
#define TOOLS_FWMOD_CHECK_PROTOCOL_FAULT_PLACES_H

#include <map>
#include <set>

namespace fwmod
{

// All by number, from 1; 0: none was seen.
struct FaultPlaces {
    unsigned int middleWrite = 0;        // of the content
    unsigned int lateWrite = 0;          // of the content as well, where most of it is written
    unsigned int endWrite = 0;           // the last of the content
    std::set<unsigned int> keyWrites;    // the first and the last of the content, and those that name a file
    std::set<unsigned int> spoiltWrites; // of the content: the first, some others, and where a few files end
    std::map<unsigned int, unsigned int> hastyRemovals; // where to cut, and the write that may be lost there
    std::set<unsigned int> flushes; // of the flushes that can fail: some at the beginning and at the end
    bool isMapped = false;          // the hardware is written through mapped memory, too
};

} // namespace fwmod

#endif
