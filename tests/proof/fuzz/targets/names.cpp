// The identifier that a control library tells, and all names and paths that follow from it; libraries' names.
#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <strings.h>
#include <tarnwick/control.h>

#include "common/errors.h"
#include "src/src/fw-update-symbol.h"
#include "tests/proof/fuzz/target.h"
#include "tests/support/control-recorder.h"
#include "tools/fwmod/images/identifier.h"
#include "tools/fwmod/images/quiet-platform.h"

namespace
{

namespace fs = std::filesystem;

constexpr const char* kControls = "/prd/usr/fwupdate/controls"; // of the set that this runs in

// Of a control library that answers as it is told, put where the daemon looks for it.
ControlRecorder& installedControl()
{
    const std::string path = std::string(kControls) + "/tuner.so";
    fs::copy_file(CONTROL_LIBRARY, path, fs::copy_options::overwrite_existing);
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    fuzz::require(library != nullptr, "the control library can be loaded");
    return *reinterpret_cast<ControlRecorderFunction*>(dlsym(library, kControlRecorderSymbol))();
}

bool isAllowed(const std::string& identifier)
{
    return !identifier.empty() &&
           std::all_of(identifier.begin(), identifier.end(), fwmod::isAsciiAlphanumeric);
}

// As the maker's tool sees it; nothing when it refuses it.
std::string nameForMakers(const std::string& identifier)
{
    try {
        return fwmod::firmwareName(identifier, "getEMPID");
    } catch (const common::WrongUse&) {
        return "";
    }
}

bool isExternalByPlace(const std::string& name)
{
    for (size_t at = 0; at + 4 <= name.size(); ++at) {
        if (strncasecmp(name.c_str() + at, "EXT-", 4) == 0) {
            return true;
        }
    }
    return false;
}

void requirePaths(FWUpdateSymbol& module, const std::string& identifier, const std::string& firmware)
{
    const std::string package = "/opt/usr/apps/appbinarymanager/emps/" + identifier + "/";
    const std::string builtIn = "/lib/firmware/ext/" + firmware + "/";
    fuzz::require(module.getInformationPath(UPDATE_TYPE_EMP) == package + "info.json" &&
                      module.getBinaryPath(UPDATE_TYPE_EMP) == package + firmware + ".bin" &&
                      module.getInformationPath(UPDATE_TYPE_BUILTIN) == builtIn + "info.json" &&
                      module.getBinaryPath(UPDATE_TYPE_BUILTIN) == builtIn + firmware + ".bin",
                  "a path is of the module's own name");
    fuzz::require(std::count(identifier.begin(), identifier.end(), '/') == 0, "a name leads nowhere else");
}

void run(std::string_view input)
{
    static ControlRecorder& control = installedControl();
    const std::string told(input.substr(0, TARNWICK_CONTROL_TEXT_SIZE));
    const std::string identifier = told.substr(0, told.find('\0'));
    control.answers.empId = told;
    control.clearCalls();

    FWUpdateSymbol module("tuner");
    const int result = module.loadSymbol("tuner");
    const size_t emp = identifier.find("emp");
    const bool isAccepted = isAllowed(identifier) && emp != std::string::npos;
    fuzz::require((result == 0) == isAccepted, "an identifier is letters and digits with \"emp\"");
    const std::string made = nameForMakers(identifier);
    fuzz::require(made.empty() || isAccepted, "what the maker's tool takes, the daemon takes");
    if (isAccepted) {
        const std::string firmware = std::string(identifier).erase(emp, 3);
        fuzz::require(module.getEMPName() == identifier && module.getFirmwareName() == firmware,
                      "the names are the identifier's");
        fuzz::require(made == firmware || identifier.size() >= TARNWICK_CONTROL_TEXT_SIZE || firmware.empty(),
                      "the maker's tool takes what the daemon takes");
        requirePaths(module, identifier, firmware);
    }
    fuzz::require(isExternalName(std::string(input)) == isExternalByPlace(std::string(input)),
                  "a name is an external module's by \"EXT-\" alone");
    fwmod::takeDaemonLog();
}

const fuzz::Target target("names", run);

} // namespace
