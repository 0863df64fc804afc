// vset-control: those commands of vset that watch and steer a set, over its bus or by its log.
#include "vset/commands/commands.h"
#include "vset/commands/program.h"

int main(int argc, char** argv)
{
    const vset::Definitions commands = {
        {"wait", vset::defineWait},
        {"get", vset::defineGet},
        {"set", vset::defineSet},
        {"power", vset::definePower},
        {"poweroff", vset::definePowerOff},
        {"reboot", vset::defineReboot},
        {"show", vset::defineShow},
        {"log", vset::defineLog},
        {"fault", vset::defineFault},
        {"property", vset::defineProperty},
        {"packages", vset::definePackages},
        {"reply", vset::defineReply},
        {"console", vset::defineConsole},
        {"modules", vset::defineModules},
        {"ui", vset::defineUi},
        {"usb", vset::defineUsb},
        {"mirroring", vset::defineMirroring},
        {"factory", vset::defineFactory},
        {"pkgmgr", vset::definePackageManager},
        {"story", vset::defineStory},
    };
    return vset::runCommandLine(argc, argv, commands, "vset");
}
