#include "tests/platform/proof.h"

#include <filesystem>
#include <fstream>
#include <glib.h>
#include <unistd.h>

#include "tests/support/run-program.h"

namespace proof
{

namespace
{

long entriesOf(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return std::distance(begin(entries), end(entries));
}

} // namespace

bool until(const std::function<bool()>& condition, int milliseconds)
{
    const gint64 end = g_get_monotonic_time() + gint64{milliseconds} * 1000;
    while (!condition()) {
        if (g_get_monotonic_time() >= end) {
            return false;
        }
        if (g_main_context_iteration(nullptr, FALSE) == FALSE) {
            usleep(2000);
        }
    }
    return true;
}

std::string growth(const char* what, const std::function<long()>& count, long most,
                   const std::function<void()>& call)
{
    long before = 0;
    for (int calls = 0; calls < 40; ++calls) {
        before = calls == 20 ? count() : before;
        call();
    }
    const long grown = count() - before;
    return grown <= most ? "" : std::to_string(grown) + " more " + what + " after twenty calls";
}

long openDescriptors()
{
    return entriesOf("/proc/self/fd");
}

long threads()
{
    return entriesOf("/proc/self/task");
}

long residentKilobytes()
{
    long whole = 0;
    long pages = 0;
    std::ifstream("/proc/self/statm") >> whole >> pages;
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

void inAnotherProcess(const std::string& what, const std::string& text)
{
    runProgram({"/proc/self/exe", what, text});
}

} // namespace proof
