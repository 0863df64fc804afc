// From the start of the daemon until its name is owned, beside the least that owns one and two services of
// Debian's, a small one and one that updates sets as well, all on the bus of the same set.

#include <cstdlib>
#include <fstream>
#include <unistd.h>

#include "bench/bus-name.h"
#include "bench/child.h"
#include "bench/measure.h"
#include "bench/set-room.h"
#include "common/daemon/places.h"

namespace
{

constexpr const char* kBus = "unix:path=/run/dbus/system_bus_socket";
using common::places::kDaemonName;
constexpr const char* kSettingsService = "/usr/libexec/dconf-service";

void start(bench::Sample& sample, const std::vector<std::string>& words, const char* ownedName)
{
    bench::BusName name(kBus, ownedName);
    name.waitUntilFree();
    const auto begin = bench::Sample::Clock::now();
    const bench::Child service(words);
    name.waitUntilOwned();
    const std::chrono::duration<double> elapsed = bench::Sample::Clock::now() - begin;
    sample.set(elapsed.count(), service.processorSeconds());
}

void startDaemon(bench::Sample& sample, const bench::Modules& modules)
{
    modules.install();
    unlink(common::places::kDownloadFlag); // as after every boot
    start(sample, {TARNWICK_PROGRAM}, kDaemonName);
}

// The least that it starts with: there is nothing that it could update.
std::string configurationOfUpdateService()
{
    std::string file = "/var/tmp/bench-rauc.conf";
    std::ofstream(file) << "[system]\ncompatible=bench\nbootloader=noop\n";
    return file;
}

void declare()
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", kBus, 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", kBus, 1); // where the peer owns its name
    const auto declareDaemon = [](int count) {
        const bench::Modules modules("module", count);
        modules.giveImages(4096); // with nothing pending it may end before it has its name
        bench::add("daemon/" + std::to_string(count),
                   [modules](bench::Sample& sample) { startDaemon(sample, modules); });
    };
    declareDaemon(10);
    if (!bench::isTrial()) {
        declareDaemon(100);
    }
    bench::add("bareService",
               [](bench::Sample& sample) { start(sample, {BARE_SERVICE, kDaemonName}, kDaemonName); });
    if (bench::hasProgram(kSettingsService)) {
        bench::add("settingsService",
                   [](bench::Sample& sample) { start(sample, {kSettingsService}, "ca.desrt.dconf"); });
    }
    if (bench::hasProgram("rauc")) {
        bench::add("updateService", [file = configurationOfUpdateService()](bench::Sample& sample) {
            start(sample, {"rauc", "--conf", file, "service"}, "de.pengutronix.rauc");
        });
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
