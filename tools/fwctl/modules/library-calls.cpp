#include "tools/fwctl/modules/library-calls.h"

#include <cxxabi.h>
#include <stdexcept>
#include <utility>

#include "src/src/fw-update-symbol.h"

namespace fwctl
{

namespace
{
struct Watcher {
    Telling& telling;
    std::string module;
    std::string entryPoint;
    bool writes;
    CallReport onTrouble;

    void report(const std::string& text) const
    {
        if (onTrouble) {
            onTrouble(text);
        }
    }
    [[noreturn]] void reportException(const std::string& what) const
    {
        const std::string text = "the control library throws in " + entryPoint + ": " + what;
        report(text);
        throw std::runtime_error(text);
    }
};

template <typename... Arguments>
int callWatched(const Watcher& watcher, const std::function<int(Arguments...)>& original,
                Arguments... arguments)
{
    try {
        const int result = watcher.telling.call(
            watcher.entryPoint, watcher.module, [&] { return original(arguments...); }, watcher.writes);
        if (result != 0) {
            watcher.report(watcher.entryPoint + " returns " + std::to_string(result));
        }
        return result;
    } catch (const std::exception& error) {
        watcher.reportException(error.what());
    } catch (const abi::__forced_unwind&) {
        watcher.report("the control library ends its thread in " + watcher.entryPoint);
        throw; // must not be kept from going on
    } catch (...) {
        watcher.reportException("something that is no std::exception");
    }
}

template <typename... Arguments>
void watch(std::function<int(Arguments...)>& slot, Watcher watcher)
{
    if (!slot) {
        return;
    }
    slot = [original = slot, watcher = std::move(watcher)](Arguments... arguments) {
        return callWatched<Arguments...>(watcher, original, arguments...);
    };
}
} // namespace

void watchCalls(FWUpdateSymbol& module, Telling& telling, const CallReport& onTrouble)
{
    const auto watcher = [&](const char* entryPoint, bool writes = false) {
        return Watcher{telling, module.getLibName(), entryPoint, writes, onTrouble};
    };
    SYMFunction& functions = module.functions;
    watch(functions.setContext, watcher("setContext"));
    watch(functions.getEMPID, watcher("getEMPID"));
    watch(functions.getActiveVersion, watcher("getActiveVersion"));
    watch(functions.checkVersion, watcher("checkVersion"));
    watch(functions.doUpdate, watcher("doUpdate", true));
    watch(functions.doUpdate_decryption, watcher("doUpdate_decryption", true));
    watch(functions.getExpectedTime, watcher("getExpectedTime"));
    watch(functions.getUpdateProgress, watcher("getUpdateProgress"));
    watch(functions.allUpdateDone, watcher("allUpdateDone", true));
}

} // namespace fwctl
