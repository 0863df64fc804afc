// Numbers that are kept in files, one line for each time that they were written: whoever waits for a change
// misses none, and a person writes one with `echo 2 >>FILE`.
//
// Usable from any thread; whoever waits is told on the thread that runs the default main context.
#ifndef TESTS_PORTING_PLATFORM_VALUES_H
#define TESTS_PORTING_PLATFORM_VALUES_H

#include <functional>
#include <string>

namespace tv
{

// Of a value's name, whose slashes become dots: /run/tv/NAME, or /var/lib/tv/NAME for what outlives the boot.
std::string runFile(const std::string& name);
std::string keptFile(const std::string& name);

bool write(const std::string& file, int value);
// The latest, 0 when there is none.
int read(const std::string& file);

// `identity` is the caller's callback, by which the wait is ended: after that nothing is told any more.
using Identity = void (*)();
using Told = std::function<void(int before, int now)>;
bool watch(const std::string& file, Identity identity, Told told);
bool ignore(const std::string& file, Identity identity);

} // namespace tv

#endif
