// The registry of 10 to 1000 modules, beside what cannot be left out of it: the directory's listing, the
// loader, and the questions of which module it is.

#include <dirent.h>
#include <dlfcn.h>
#include <memory>
#include <stdexcept>
#include <tarnwick/control.h>

#include "bench/measure.h"
#include "bench/set-room.h"
#include "common/daemon/places.h"
#include "src/src/fw-update-symbol-manager.h"

namespace
{

void buildRegistry()
{
    FWUpdateSymbolManager manager;
    if (!manager.onCreate(false)) {
        throw std::runtime_error("the registry stays empty");
    }
}

// The libraries stay loaded until all are, as in the registry.
class Loaded
{
public:
    explicit Loaded(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW))
    {
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    ~Loaded() { dlclose(handle_); }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

    template <typename Function>
    Function* find(const char* name) const
    {
        return reinterpret_cast<Function*>(dlsym(handle_, name));
    }

private:
    void* handle_;
};

void loadBare()
{
    std::vector<std::unique_ptr<Loaded>> libraries;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory{opendir(common::places::kProductControls), closedir};
    while (const dirent* const entry = readdir(directory.get())) {
        const std::string file = entry->d_name;
        if (file.find(".so") == std::string::npos) {
            continue;
        }
        libraries.push_back(
            std::make_unique<Loaded>(std::string(common::places::kProductControls) + "/" + file));
        const Loaded& library = *libraries.back();
        for (const char* name : {"getActiveVersion", "checkVersion", "doUpdate", "allUpdateDone",
                                 "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"}) {
            library.find<void>(name);
        }
        char identifier[TARNWICK_CONTROL_TEXT_SIZE] = {};
        char context[] = "";
        library.find<tarnwick_setContext_fn>("setContext")(file.c_str(), 2, context);
        library.find<tarnwick_getEMPID_fn>("getEMPID")(identifier);
    }
}

void declare()
{
    for (const int count : {10, 100, 1000}) {
        if (bench::isTrial() && count > 10) {
            break;
        }
        const auto modules = std::make_shared<bench::Modules>("module", count);
        const auto measure = [modules, count](bench::Sample& sample, void (*build)()) {
            modules->install();
            sample.time(build, 1000 / count);
        };
        bench::add("daemon/" + std::to_string(count),
                   [measure](bench::Sample& sample) { measure(sample, buildRegistry); });
        bench::add("bareLoader/" + std::to_string(count),
                   [measure](bench::Sample& sample) { measure(sample, loadBare); });
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
