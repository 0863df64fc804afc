// The interface as C++17 sees it, and a look at the compiled C library: the nine names must be exported
// plain, also from a library that hides everything else.
#include <cstdio>
#include <dlfcn.h>
#include <tarnwick/control.h>
#include <type_traits>

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
