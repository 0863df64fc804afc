// whole-story LIBRARY CHIP PACKAGE: a story of a maker's own, on a television of the installed kit: an
// unattended update at standby, and one that the power is cut in. Exit status 0 when all of it came true.
#include <cstdio>
#include <tarnwick/television.h>

namespace
{

using tarnwick::Television;

int failures = 0;

void expect(bool isTrue, const char* what)
{
    std::printf("%s  %s\n", isTrue ? "yes" : "NO ", what);
    failures += isTrue ? 0 : 1;
}

// Ten minutes after its start, with something pending, the set goes to standby.
void goToStandby(Television& tv)
{
    tv.waitForText("need update item, wait ui or bg fw update\n");
    tv.jump(600);
    tv.setPower(tarnwick::kStandby);
}

void tellOfAnUpdate(const char* const* files)
{
    Television tv;
    tv.putLibrary(files[0]);
    tv.putHardware(files[1]);
    tv.putPackage(files[2], Television::Package::kDelivered);
    const std::string before = tv.read("/var/lib/hardware/tuner");
    tv.switchOn();
    goToStandby(tv);
    expect(tv.waitForDaemon() == 0, "the daemon ended with status 0");
    expect(tv.said("========== [ Tuner update succeeded ] =========="), "it told of its success");
    expect(tv.read("/var/lib/hardware/tuner") != before, "the chip was written");
    expect(!tv.exists("/opt/usr/apps/appbinarymanager/empTuner.img"), "the package is gone");
    expect(tv.loopMounts().empty(), "no loop mount is left");
    tv.reboot();
    tv.waitForBoot(2);
    tv.waitForText("no update module item!\n");
    expect(tv.waitForDaemon() == 0, "after the next boot nothing is pending");
}

void tellOfACut(const char* const* files)
{
    Television tv;
    tv.putLibrary(files[0]);
    tv.putHardware(files[1]);
    tv.putPackage(files[2], Television::Package::kDelivered);
    tv.switchOn(40);
    goToStandby(tv);
    expect(tv.waitForEnd() == 3, "the power was cut at a write");
    tv.clearLog();
    tv.switchOn();
    goToStandby(tv);
    expect(tv.waitForDaemon() == 0, "the update is made again");
    expect(tv.countOf("========== [ Tuner update succeeded ] ==========") == 1, "and succeeds");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: whole-story LIBRARY CHIP PACKAGE\n");
        return 2;
    }
    try {
        tellOfAnUpdate(argv + 1);
        tellOfACut(argv + 1);
    } catch (const tarnwick::TelevisionError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return failures == 0 ? 0 : 1;
}
