#include "common/terminal/terminal.h"

#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace common
{

namespace
{

std::string_view variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

bool isDrawable(int descriptor)
{
    const std::string_view kind = variable("TERM");
    return isatty(descriptor) != 0 && !kind.empty() && kind != "dumb" && kind != "unknown";
}

bool isColoured(int descriptor)
{
    return isDrawable(descriptor) && variable("NO_COLOR").empty();
}

} // namespace common
