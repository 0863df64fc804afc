// Texts one behind the other.
#ifndef COMMON_JOINED_H
#define COMMON_JOINED_H

#include <string>
#include <vector>

namespace common
{

inline std::string joined(const std::vector<std::string>& texts, const char* between)
{
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : between) + text;
    }
    return all;
}

} // namespace common

#endif
