#include "tests/proof/model/modules.h"

namespace proof
{

namespace
{

const std::string kPackages = "/opt/usr/apps/appbinarymanager/";

} // namespace

Image::Image(const Module& module)
    : made(module), firmware(module.id.empty() ? "" : module.id.substr(3)),
      hasPackage(module.package.content != Source::kAbsent)
{
}

std::string Image::file() const
{
    return kPackages + made.id + ".img";
}

std::string Image::mountPoint() const
{
    return kPackages + "emps/" + made.id;
}

std::string Image::path(int caller, const std::string& name) const
{
    return (caller == kFromSystem ? "/lib/firmware/ext/" + firmware : mountPoint()) + "/" + name;
}

void Modules::ask(const Image& module, const std::string& function, const std::string& arguments)
{
    stage.call(module.made.name + " " + function, arguments);
}

void Modules::setContext(const Image& module, int caller)
{
    ask(module, "setContext", quoted(module.made.name) + ", " + number(caller) + ", \"\"");
}

void Modules::load()
{
    for (const Image& image : all) {
        setContext(image, 2);
        if (image.made.id.empty()) {
            stage.error("Not Update Symbol [" + image.made.name + "]");
        } else {
            ask(image, "getEMPID");
        }
    }
}

void Modules::request()
{
    for (const Image& image : all) {
        if (!image.made.id.empty()) {
            stage.call("ABM_DownloadAppBinary", "null, null, " + quoted(image.made.id));
            if (stage.failsOnce("ABM_DownloadAppBinary")) {
                stage.error("Error: EMP ABM_DownloadAppBinary fail.(" + image.made.id + ")");
            } else {
                stage.info("Request (" + image.made.id + ") emp download");
            }
        }
    }
}

int Modules::checkAll(std::string& lines)
{
    int positive = 0;
    for (Image& image : all) {
        const int builtIn = check(image, kFromSystem) == 1 ? 1 : 0;
        const int packaged = check(image, kFromPackage) == 1 ? 1 : 0;
        positive += builtIn + packaged;
        if (builtIn + packaged > 0) {
            lines += image.made.name + " " + image.made.id + "\n";
            stage.error("Need Update [" + image.made.name + "][" + image.made.id + "]");
        }
    }
    return positive;
}

void Modules::tellAll()
{
    for (const Image& image : all) {
        ask(image, "allUpdateDone");
    }
}

// ---- Packages ----

bool Modules::unmount(Image& module)
{
    const std::string directory = module.mountPoint();
    if (!module.hasMountPoint) {
        stage.error("Umount dir[" + directory + "] is invalid.");
        return false;
    }
    stage.call("PS_Umount", quoted(directory));
    if (module.mounts == 0) {
        stage.error("Error(iRet1=-1, iRet2=22) while unmounitng [" + directory + "]");
        return false;
    }
    --module.mounts;
    stage.info("Umount dir[" + directory + "] successfully.");
    return true;
}

bool Modules::mount(Image& module)
{
    if (!module.hasPackage) {
        stage.error("Error: file no exist (" + module.file() + ")");
        return false;
    }
    unmount(module); // what an earlier check has left
    module.hasMountPoint = true;
    const std::string command = "-o ro,loop,nodev,nosuid " + module.file() + " " + module.mountPoint();
    stage.info("PsMntCmd:[" + command + "]");
    stage.call("PS_Mount", quoted(command));
    if (stage.failsOnce("PS_Mount")) {
        stage.info("Fail PS_Mount: file:[" + module.file() + "], dest:[" + module.mountPoint() +
                   "], retVal:[-1], result:[0]");
        stage.info("loop count is 1, mount count is 0"); // a node is free: another one would not help
        stage.error("Error: Firmware EMP Mount Fail.(" + module.made.id + ")");
        return false;
    }
    ++module.mounts;
    return true;
}

void Modules::unmountPackage(Image& module)
{
    stage.error(unmount(module) ? "EMP UMount Success " + module.file()
                                : "Error: Firmware EMP UMount Fail.(" + module.made.id + ")");
}

// ---- Checks ----

int Modules::check(Image& module, int caller)
{
    if (module.firmware.empty()) {
        stage.error("Error: m_fwName (ret empId)  empty.(" + module.made.name + ")");
        return -1;
    }
    stage.error(module.firmware + " Firmware isNeedUpdateModules Try(" + module.made.name + ")");
    if (caller == kFromPackage && !mount(module)) {
        return -1;
    }
    setContext(module, caller);
    stage.failsOnce("setContext"); // nobody looks
    const Source& source = module.source(caller);
    if (source.content == Source::kAbsent) {
        stage.error("Error: Firmware binary file no exist (" + module.path(caller, module.firmware + ".bin") +
                    ")");
        return -1;
    }
    module.uiUse = source.uiUse;
    const std::string failed = "Error: " + module.firmware + " Firmware ";
    if (caller == kFromSystem && source.uiUse == "none") {
        stage.error(failed + "does not have proper UI information in " + module.path(caller, "info.json"));
        return -1;
    }
    if (source.content == Source::kBroken) {
        stage.error(failed + "CRC32 different");
        return -1;
    }
    return judge(module, caller);
}

int Modules::judge(Image& module, int caller)
{
    const Source& source = module.source(caller);
    ask(module, "checkVersion", quoted(number(source.verdict)));
    if (stage.failsOnce("checkVersion")) {
        stage.error("Error: " + module.firmware + " Firmware CheckVersion Fail");
        return -1;
    }
    if (source.verdict < 1) {
        setContext(module, 2);
        ask(module, "getActiveVersion");
        stage.error("Error: " +
                    (caller == kFromPackage ? module.file() : module.path(caller, module.firmware + ".bin")) +
                    " not need update, version is 1.0");
    }
    module.isBuiltIn = caller == kFromSystem;
    module.isNeeded = source.verdict == 1;
    module.expected = source.expected;
    return source.verdict;
}

// ---- Updates ----

void Modules::update(Image& module, int caller, const Stage::Step& done)
{
    stage.error(module.firmware + " Firmware Update Try");
    if (caller == kFromPackage && !mount(module)) {
        done();
        return;
    }
    module.uiUse = module.source(caller).uiUse;
    stage.pass(writing, [=, &module] {
        updateLocked(module, caller, [=] {
            stage.leave(writing);
            done();
        });
    });
}

void Modules::updateLocked(Image& module, int caller, const Stage::Step& done)
{
    const Source& source = module.source(caller);
    setContext(module, caller);
    if (stage.failsOnce("setContext")) {
        done();
        return;
    }
    const std::string failed = "Error: " + module.firmware + " Firmware ";
    ask(module, "checkVersion", quoted(number(source.verdict)));
    if (stage.failsOnce("checkVersion")) {
        stage.error(failed + "CheckVersion Fail");
    } else if (source.verdict < 1) {
        stage.error(failed + "not need update");
        if (caller == kFromPackage) {
            unmountPackage(module);
        }
    } else if (!isSound(module, caller)) {
        stage.error(failed + "crc32 different");
    } else {
        write(module, caller, done);
        return;
    }
    done();
}

// Another update of the same package may have unmounted it meanwhile.
bool Modules::isSound(const Image& module, int caller)
{
    const bool isThere = caller == kFromSystem || module.mounts > 0;
    if (!isThere) {
        stage.error("Error: binary file is NULL\n");
    }
    return isThere && module.source(caller).content == Source::kSound;
}

void Modules::write(Image& module, int caller, const Stage::Step& done)
{
    stage.error("========== [ " + module.firmware + " update start ] ==========");
    ask(module, "doUpdate", quoted(module.path(caller, module.firmware + ".bin")) + ", 28458147");
    const int result = updateMode == "fail" ? 7 : 0;
    const Stage::Step finish = [=, &module] {
        written(module, caller, result);
        done();
    };
    if (updateMode == "hang") {
        hanging.push_back(finish);
    } else if (updateMode == "quick") {
        finish();
    } else {
        stage.sleep(updateMode == "slow" ? 5 * kSecond : 100, finish);
    }
}

void Modules::written(Image& module, int caller, int result)
{
    if (result != 0) {
        stage.error("Error: " + module.firmware + " Firmware doUpdate Fail 7 (5:Input/output error)");
        return;
    }
    stage.error("========== [ " + module.firmware + " update succeeded ] ==========");
    if (caller == kFromPackage) {
        module.hasPackage = false;
        unmountPackage(module);
    }
}

void Modules::freeHanging()
{
    stage.ready.insert(stage.ready.end(), hanging.begin(), hanging.end());
    hanging.clear();
}

std::string Modules::status() const
{
    std::string text;
    for (const Image& image : all) {
        text +=
            ", " + image.made.name + (image.hasPackage ? " package" : "") + " mounts " + number(image.mounts);
    }
    return text;
}

} // namespace proof
