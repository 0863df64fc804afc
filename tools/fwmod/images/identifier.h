// A module's identifier, as its control library reports it, and the name that follows from it.
#ifndef TOOLS_FWMOD_IMAGES_IDENTIFIER_H
#define TOOLS_FWMOD_IMAGES_IDENTIFIER_H

#include <string>

namespace fwmod
{

bool isAsciiAlphanumeric(char c);

// The firmware name: the identifier without its first "emp". Throws WrongUse, which names `source`, for an
// identifier that the daemon refuses.
std::string firmwareName(const std::string& identifier, const std::string& source);

} // namespace fwmod

#endif
