// In the place of the C library's functions that change what belongs to the whole process, for every library
// of it: what is put back before the call returns has been wrong for every other thread meanwhile, however
// short that was. The functions have other names here, because headers declare theirs in several ways.
#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fts.h>
#include <ftw.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "common/process/process-state.h"
#include "tools/fwmod/check/examiner/black-box.h"

namespace fwmod::examiner
{

namespace
{
template <typename Function>
Function* original(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Calls the C library's function and notes when it has changed what `look` gives.
template <typename Look, typename Call>
auto watched(FindingId finding, const std::string& what, const Look& look, const Call& call)
{
    if (!isLibraryCalling()) {
        return call();
    }
    const auto before = look();
    const auto result = call();
    const int error = errno;
    if (look() != before) {
        noteMoment(finding, what.c_str());
    }
    errno = error;
    return result;
}

std::string directory()
{
    std::error_code gone;
    return std::filesystem::current_path(gone);
}

void noteWalk(const char* what, bool isChanging)
{
    if (isChanging && isLibraryCalling()) {
        noteMoment(FindingId::WorkingDirectory, what);
    }
}

std::string locale()
{
    const char* const name = original<char*(int, const char*)>("setlocale")(LC_ALL, nullptr);
    return name != nullptr ? name : "";
}

std::vector<std::string> environment()
{
    std::vector<std::string> entries;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        entries.emplace_back(*entry);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

using Handler = void (*)(int);
using SetAction = int(int, const struct sigaction*, struct sigaction*);

Handler handlerOf(int number)
{
    static SetAction* const set = original<SetAction>("sigaction");
    struct sigaction action = {};
    return set(number, nullptr, &action) == 0 ? action.sa_handler : SIG_ERR;
}

template <typename Call>
auto withHandlerWatched(const char* name, int number, const Call& call)
{
    return watched(
        FindingId::SignalHandling, std::string(name) + ": the disposition of " + common::signalName(number),
        [number] { return handlerOf(number); }, call);
}

Handler setHandler(const char* name, int number, Handler handler)
{
    return withHandlerWatched(name, number,
                              [&] { return original<Handler(int, Handler)>(name)(number, handler); });
}

template <typename Call>
int withEnvironmentWatched(const char* name, const char* variable, const Call& call)
{
    return watched(FindingId::Environment, std::string(name) + "(" + variable + ")", environment, call);
}

// Two numbers, for comparisons.
std::vector<rlim_t> limitOf(int resource)
{
    rlimit limit = {};
    getrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
    return {limit.rlim_cur, limit.rlim_max};
}

template <typename Call>
int withLimitWatched(const char* name, int resource, const Call& call)
{
    return watched(
        FindingId::LimitChanged, std::string(name) + "(" + std::to_string(resource) + ")",
        [resource] { return limitOf(resource); }, call);
}
} // namespace

// NOLINTBEGIN(readability-identifier-naming): what stands in the place of another
#define INSTEAD_OF(name) __asm__(name) __attribute__((visibility("default")))

extern "C" {

int watchedSystem(const char* command) INSTEAD_OF("system");
int watchedSystem(const char* command)
{
    if (command != nullptr && isLibraryCalling()) {
        noteMoment(FindingId::SignalHandling,
                   "system: the process ignores SIGINT and SIGQUIT until the command has ended");
    }
    return original<int(const char*)>("system")(command);
}

int watchedSigaction(int number, const struct sigaction* action, struct sigaction* old)
    INSTEAD_OF("sigaction");
int watchedSigaction(int number, const struct sigaction* action, struct sigaction* old)
{
    const auto call = [&] { return original<SetAction>("sigaction")(number, action, old); };
    return action == nullptr ? call() : withHandlerWatched("sigaction", number, call);
}

Handler watchedSignal(int number, Handler handler) INSTEAD_OF("signal");
Handler watchedSignal(int number, Handler handler)
{
    return setHandler("signal", number, handler);
}

Handler watchedSysvSignal(int number, Handler handler) INSTEAD_OF("__sysv_signal");
Handler watchedSysvSignal(int number, Handler handler)
{
    return setHandler("__sysv_signal", number, handler);
}

Handler watchedSigset(int number, Handler handler) INSTEAD_OF("sigset");
Handler watchedSigset(int number, Handler handler)
{
    return setHandler("sigset", number, handler);
}

mode_t watchedUmask(mode_t mask) INSTEAD_OF("umask");
mode_t watchedUmask(mode_t mask)
{
    const mode_t before = original<mode_t(mode_t)>("umask")(mask);
    if (before != (mask & 0777) && isLibraryCalling()) {
        noteMoment(FindingId::FileModeMask, "umask");
    }
    return before;
}

int watchedChdir(const char* path) INSTEAD_OF("chdir");
int watchedChdir(const char* path)
{
    return watched(FindingId::WorkingDirectory, "chdir", directory,
                   [&] { return original<int(const char*)>("chdir")(path); });
}

int watchedFchdir(int descriptor) INSTEAD_OF("fchdir");
int watchedFchdir(int descriptor)
{
    return watched(FindingId::WorkingDirectory, "fchdir", directory,
                   [&] { return original<int(int)>("fchdir")(descriptor); });
}

// Both walk through directories, and go into each of them by the C library's own way to the kernel.
using WalkTree = int(const char*, void (*)(), int, int);

int watchedNftw(const char* path, void (*visit)(), int most, int flags) INSTEAD_OF("nftw");
int watchedNftw(const char* path, void (*visit)(), int most, int flags)
{
    noteWalk("nftw with FTW_CHDIR", (flags & FTW_CHDIR) != 0);
    return original<WalkTree>("nftw")(path, visit, most, flags);
}

int watchedNftw64(const char* path, void (*visit)(), int most, int flags) INSTEAD_OF("nftw64");
int watchedNftw64(const char* path, void (*visit)(), int most, int flags)
{
    noteWalk("nftw with FTW_CHDIR", (flags & FTW_CHDIR) != 0);
    return original<WalkTree>("nftw64")(path, visit, most, flags);
}

using OpenTree = void*(char* const*, int, void (*)());

void* watchedFtsOpen(char* const* paths, int options, void (*compare)()) INSTEAD_OF("fts_open");
void* watchedFtsOpen(char* const* paths, int options, void (*compare)())
{
    noteWalk("fts_open without FTS_NOCHDIR", (options & (FTS_NOCHDIR | FTS_LOGICAL)) == 0);
    return original<OpenTree>("fts_open")(paths, options, compare);
}

void* watchedFts64Open(char* const* paths, int options, void (*compare)()) INSTEAD_OF("fts64_open");
void* watchedFts64Open(char* const* paths, int options, void (*compare)())
{
    noteWalk("fts_open without FTS_NOCHDIR", (options & (FTS_NOCHDIR | FTS_LOGICAL)) == 0);
    return original<OpenTree>("fts64_open")(paths, options, compare);
}

char* watchedSetlocale(int category, const char* name) INSTEAD_OF("setlocale");
char* watchedSetlocale(int category, const char* name)
{
    const auto call = [&] { return original<char*(int, const char*)>("setlocale")(category, name); };
    if (name == nullptr) {
        return call();
    }
    return watched(FindingId::Locale, "setlocale", locale, call);
}

int watchedSetenv(const char* name, const char* value, int isReplacing) INSTEAD_OF("setenv");
int watchedSetenv(const char* name, const char* value, int isReplacing)
{
    return withEnvironmentWatched("setenv", name, [&] {
        return original<int(const char*, const char*, int)>("setenv")(name, value, isReplacing);
    });
}

int watchedPutenv(char* entry) INSTEAD_OF("putenv");
int watchedPutenv(char* entry)
{
    return withEnvironmentWatched("putenv", entry, [&] { return original<int(char*)>("putenv")(entry); });
}

int watchedUnsetenv(const char* name) INSTEAD_OF("unsetenv");
int watchedUnsetenv(const char* name)
{
    return withEnvironmentWatched("unsetenv", name,
                                  [&] { return original<int(const char*)>("unsetenv")(name); });
}

int watchedClearenv() INSTEAD_OF("clearenv");
int watchedClearenv()
{
    return withEnvironmentWatched("clearenv", "", [&] { return original<int()>("clearenv")(); });
}

int watchedSetrlimit(int resource, const rlimit* limit) INSTEAD_OF("setrlimit");
int watchedSetrlimit(int resource, const rlimit* limit)
{
    return withLimitWatched("setrlimit", resource,
                            [&] { return original<int(int, const rlimit*)>("setrlimit")(resource, limit); });
}

int watchedSetrlimit64(int resource, const rlimit64* limit) INSTEAD_OF("setrlimit64");
int watchedSetrlimit64(int resource, const rlimit64* limit)
{
    return withLimitWatched("setrlimit", resource, [&] {
        return original<int(int, const rlimit64*)>("setrlimit64")(resource, limit);
    });
}

int watchedPrlimit(pid_t process, int resource, const rlimit* limit, rlimit* old) INSTEAD_OF("prlimit");
int watchedPrlimit(pid_t process, int resource, const rlimit* limit, rlimit* old)
{
    return withLimitWatched("prlimit", resource, [&] {
        return original<int(pid_t, int, const rlimit*, rlimit*)>("prlimit")(process, resource, limit, old);
    });
}
} // extern "C"
#undef INSTEAD_OF
// NOLINTEND(readability-identifier-naming)

} // namespace fwmod::examiner
