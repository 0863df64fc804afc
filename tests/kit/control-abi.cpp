// The interface as C++17 sees it, and a look at the compiled C library: the nine names must be exported
// plain, also from a library that hides everything else.
#include <cstdio>
#include <dlfcn.h>
#include <iterator>
#include <string_view>
#include <tarnwick/control.h>
#include <type_traits>

#include "common/daemon/entry-points.h"

#define ABI_SAME_TYPE(function, type)                                                                        \
    static_assert(std::is_same<decltype(function), type>::value, #function " has changed")
#define ABI_ASSERT(condition) static_assert(condition, #condition)

extern "C" {
typedef int allUpdateDone_abi();
#include "tests/kit/control-abi.inc"
}

namespace
{
constexpr const char* kEntryPoints[] = {"setContext",          "getEMPID",        "getActiveVersion",
                                        "checkVersion",        "doUpdate",        "allUpdateDone",
                                        "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"};

constexpr bool isTheList()
{
    if (std::size(common::kEntryPoints) != std::size(kEntryPoints)) {
        return false;
    }
    for (std::size_t at = 0; at < std::size(kEntryPoints); ++at) {
        if (std::string_view(common::kEntryPoints[at].name) != kEntryPoints[at]) {
            return false;
        }
    }
    return true;
}
static_assert(isTheList(), "common/daemon/entry-points.h has other functions than the interface");
} // namespace

int main(int argc, char** argv)
{
    void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : nullptr;
    if (library == nullptr) {
        std::fprintf(stderr, "control-abi: cannot load the library: %s\n",
                     argc == 2 ? dlerror() : "no argument");
        return 1;
    }
    int missing = 0;
    for (const char* name : kEntryPoints) {
        if (dlsym(library, name) != nullptr) {
            continue;
        }
        std::fprintf(stderr, "control-abi: %s is not exported\n", name);
        ++missing;
    }
    dlclose(library);
    return missing == 0 ? 0 : 1;
}
