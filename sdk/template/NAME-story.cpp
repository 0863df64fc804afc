// A whole story of the module, on a television of its own with the production daemon; tarnwick/television.h
// tells what else can happen there. Arguments: the library, and what it is updated from. Prints what is not
// so.
#include <cstdio>
#include <string>
#include <tarnwick/television.h>

namespace
{
using tarnwick::Television;

const std::string kKind = "@KIND@";
const std::string kChip = "/var/lib/hardware/@NAME@";

int failures = 0;

void expect(bool isSo, const char* what)
{
    if (!isSo) {
        std::fprintf(stderr, "this did not happen: %s\n", what);
        ++failures;
    }
}

void fill(Television& tv, const char* library, const char* offer)
{
    tv.putLibrary(library,
                  kKind == "builtin" ? Television::Controls::kSystem : Television::Controls::kProduct);
    if (kKind == "emp") {
        tv.putPackage(offer, Television::Package::kDelivered);
    } else {
        tv.putFirmware(offer);
    }
}

// Unattended: ten minutes after the boot the viewer presses the standby button, and switches on again later.
void updateAtStandby(Television& tv)
{
    tv.switchOn();
    tv.waitForText("need update item, wait ui or bg fw update\n");
    tv.jump(600);
    tv.setPower(tarnwick::kStandby);
    expect(tv.waitForDaemon() == 0, "the daemon ends well after the update");
    expect(tv.loopMounts().empty(), "the package is unmounted");
    tv.reboot();
}

// The viewer accepts what the screen offers; the set reboots by itself.
void updateOnScreen(Television& tv)
{
    tv.switchOn();
    tv.answerUpgradeUi("accept");
}

// The daemon leaves external modules out: a technician has the library do it.
void updateByTechnician(Television& tv)
{
    tv.switchOnAlone();
    const tarnwick::Output told = tv.execute({"fwctl", "update", "--", "@NAME@"});
    expect(told.status == 0, (told.text + told.errors).c_str());
}

void tell(const char* library, const char* offer)
{
    Television tv;
    fill(tv, library, offer);
    const std::string before = tv.read(kChip);
    if (kKind == "external") {
        updateByTechnician(tv);
    } else {
        kKind == "emp" ? updateAtStandby(tv) : updateOnScreen(tv);
        tv.waitForBoot(2);
        tv.waitForText("no update module item!\n"); // nothing is left to do
        expect(tv.said("========== [ @FIRMWARE@ update succeeded ] =========="),
               "the daemon tells of its success");
    }
    expect(tv.read(kChip) != before, "the hardware has another firmware");
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s LIBRARY PACKAGE|FIRMWARE_DIRECTORY\n", argv[0]);
        return 2;
    }
    try {
        tell(argv[1], argv[2]);
    } catch (const tarnwick::TelevisionError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return failures == 0 ? 0 : 1;
}
