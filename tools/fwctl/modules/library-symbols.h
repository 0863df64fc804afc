// Why a control library does not bind, more fully than the loader's one line.
#ifndef TOOLS_FWCTL_MODULES_LIBRARY_SYMBOLS_H
#define TOOLS_FWCTL_MODULES_LIBRARY_SYMBOLS_H

#include <string>
#include <vector>

namespace fwctl
{

struct LibrarySymbols {
    std::string loaderError;            // empty when the daemon's way of opening it succeeds
    std::vector<std::string> missing;   // required entry points that it does not export
    std::vector<std::string> undefined; // symbols that nothing provides
};

// Opens the library: its constructors run. For a child process.
LibrarySymbols inspectLibrary(const std::string& path);

} // namespace fwctl

#endif
