// The library is loaded as the daemon does it, and its entry points are looked up.
#include <algorithm>
#include <dlfcn.h>

#include "common/daemon/entry-points.h"
#include "tools/fwmod/check/examiner/worker/calling.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

namespace
{
// Older linkers put them into every library.
bool isLinkersName(const std::string& name)
{
    constexpr const char* kNames[] = {"_init", "_fini", "__bss_start", "_edata", "_end"};
    return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

// Told by itself.
bool isMangledEntryPoint(const Job& job, const std::string& name)
{
    return std::any_of(job.mangled.begin(), job.mangled.end(),
                       [&](const auto& entry) { return entry.second == name; });
}
} // namespace

// Before the library is loaded: the process has then what the daemon links. The program's own names are
// passed over: some of them stand in the place of a library's.
void Worker::lookForClashes() const
{
    std::string others;
    for (const std::string& name : job_.otherNames) {
        Dl_info theirs = {};
        void* const address = dlsym(RTLD_NEXT, name.c_str());
        if (address != nullptr && dladdr(address, &theirs) != 0) {
            const std::string file = theirs.dli_fname;
            found(FindingId::ClashingName,
                  name + ", which " + file.substr(file.rfind('/') + 1) + " has, too");
        } else if (!isLinkersName(name) && !isMangledEntryPoint(job_, name)) {
            others += (others.empty() ? "" : ", ") + name;
        }
    }
    if (!others.empty()) {
        constexpr std::size_t kMost = 200; // characters
        found(FindingId::OtherNames, others.substr(0, kMost) + (others.size() > kMost ? "..." : ""));
    }
}

bool Worker::load()
{
    const std::string name = "loading";
    if (areMannersWatched_) {
        lookForClashes();
    }
    void* handle = nullptr;
    std::string error;
    const auto returned = call(name, kQuestionLimit, [&] {
        handle = dlopen(job_.library.c_str(), RTLD_NOW);
        const char* const text = handle == nullptr ? dlerror() : nullptr;
        error = text != nullptr ? text : "";
        return 0;
    });
    if (returned) {
        complainOfSlowness(*this, name, *returned);
    }
    if (handle == nullptr) {
        if (!error.empty()) {
            explainLoadError(error);
        }
        return false;
    }
    bool isComplete = true;
    const auto take = [&](auto*& slot, const common::EntryPoint& entry) {
        dlerror();
        void* const address = dlsym(handle, entry.name);
        const bool isThere = dlerror() == nullptr;
        slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(address);
        if (address != nullptr) {
            return;
        }
        isComplete = isComplete && !entry.isRequired;
        const auto mangled = job_.mangled.find(entry.name);
        if (isThere || mangled != job_.mangled.end()) {
            flawed_.insert(entry.name);
        }
        if (isThere) {
            found(FindingId::NullEntryPoint, entry.name);
        } else if (mangled != job_.mangled.end()) {
            found(FindingId::MangledEntryPoint,
                  std::string(entry.name) + " is exported as " + mangled->second);
        } else if (entry.isRequired) {
            found(FindingId::MissingEntryPoint, entry.name);
        }
    };
    take(setContext_, common::entryPoint("setContext"));
    take(getEMPID_, common::entryPoint("getEMPID"));
    take(getActiveVersion_, common::entryPoint("getActiveVersion"));
    take(checkVersion_, common::entryPoint("checkVersion"));
    take(doUpdate_, common::entryPoint("doUpdate"));
    take(allUpdateDone_, common::entryPoint("allUpdateDone"));
    take(doUpdateDecryption_, common::entryPoint("doUpdate_decryption"));
    take(getExpectedTime_, common::entryPoint("getExpectedTime"));
    take(getUpdateProgress_, common::entryPoint("getUpdateProgress"));
    return isComplete;
}

void Worker::explainLoadError(const std::string& error) const
{
    struct Kind {
        const char* words; // of the dynamic loader
        FindingId finding;
    };
    constexpr Kind kKinds[] = {{"undefined symbol", FindingId::UndefinedSymbols},
                               {"file too short", FindingId::NoSharedLibrary},
                               {"invalid ELF", FindingId::NoSharedLibrary},
                               {"wrong ELF class", FindingId::NoSharedLibrary},
                               {"only ET_DYN", FindingId::NoSharedLibrary},
                               {"cannot read file data", FindingId::NoSharedLibrary},
                               {"position-independent executable", FindingId::NoSharedLibrary},
                               {"ELF load command", FindingId::NoSharedLibrary},
                               {"ELF file's phentsize", FindingId::NoSharedLibrary}};
    for (const Kind& kind : kKinds) {
        if (error.find(kind.words) != std::string::npos) {
            return found(kind.finding, error);
        }
    }
    found(FindingId::NotLoaded, error);
}

bool Worker::has(const char* entryPoint) const
{
    const std::string name = entryPoint;
    if (name == "doUpdate_decryption") {
        return doUpdateDecryption_ != nullptr && !job_.isExternal;
    }
    if (name == "getExpectedTime") {
        return getExpectedTime_ != nullptr && !job_.isExternal;
    }
    if (name == "getUpdateProgress") {
        return getUpdateProgress_ != nullptr;
    }
    return name == "allUpdateDone" && allUpdateDone_ != nullptr;
}
} // namespace fwmod::examiner
