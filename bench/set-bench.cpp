// A virtual set from `vset run` to a command and to the daemon's name, and its reboots, beside what is in
// them: a bus with a service on it, and new namespaces alone. And the last hundred of a thousand boots of one
// set, beside the first hundred of another.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bench/bus-name.h"
#include "bench/child.h"
#include "bench/measure.h"
#include "common/daemon/places.h"
#include "common/files/temporary-directory.h"
#include "include/tarnwick/television.h"

namespace
{

namespace fs = std::filesystem;
using Clock = bench::Sample::Clock;

using common::places::kDaemonName;
constexpr std::chrono::seconds kPatience{10};

// As soon as it answers.
std::unique_ptr<bench::BusName> watch(const std::string& address)
{
    const auto limit = Clock::now() + kPatience;
    while (true) {
        try {
            return std::make_unique<bench::BusName>(address, kDaemonName);
        } catch (const std::runtime_error&) {
            if (Clock::now() > limit) {
                throw;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    }
}

std::string busOf(const fs::path& set)
{
    return "unix:path=" + (set / "root/run/dbus/system_bus_socket").string();
}

// A set with a module whose package is pending, so that its daemon stays.
class Set
{
public:
    Set() : television(fs::path(VSET_PROGRAM))
    {
        const fs::path examples = EXAMPLES;
        television.putLibrary(examples / "tuner.so");
        television.putPackage(examples / "images/1.1/empTuner.img",
                              tarnwick::Television::Package::kDelivered);
        television.putHardware(examples / "images/1.0/hardware");
    }

    tarnwick::Television television;
};

void runToName(bench::Sample& sample, const Set& set)
{
    const fs::path& directory = set.television.set();
    fs::remove(directory / "root/run/dbus/system_bus_socket"); // that of the last time
    std::optional<bench::Child> vset;
    sample.time([&] {
        vset.emplace(std::vector<std::string>{VSET_PROGRAM, "run", directory});
        watch(busOf(directory))->waitUntilOwned();
    });
    sample.set(sample.elapsed());
}

// Several in one sample, so that seven samples are a hundred boots.
void runToNameAgain(bench::Sample& sample, const Set& set)
{
    const int boots = bench::isTrial() ? 1 : 14;
    double elapsed = 0;
    for (int i = 0; i < boots; ++i) {
        runToName(sample, set);
        elapsed += sample.elapsed() / boots;
    }
    sample.set(elapsed);
}

std::shared_ptr<Set> agedSet()
{
    const int boots = bench::isTrial() ? 2 : 900;
    auto set = std::make_shared<Set>();
    for (int i = 0; i < boots; ++i) {
        bench::Sample ignored;
        runToName(ignored, *set);
    }
    return set;
}

// From the end of the bus until the daemon has its name on the next: the second that a set takes its leave
// for is not in it.
class Reboots
{
public:
    void go(bench::Sample& sample)
    {
        if (!television_.isOn()) {
            television_.switchOn();
            watch()->waitUntilOwned();
        }
        const auto old = watch();
        television_.reboot();
        old->waitUntilBusIsGone();
        sample.time([&] { watch()->waitUntilOwned(); });
        sample.set(sample.elapsed()); // most of the work is another process's, as above
    }

private:
    std::unique_ptr<bench::BusName> watch() { return ::watch(busOf(television_.set())); }

    Set set_;
    tarnwick::Television& television_ = set_.television;
};

// The least that has to be started for a name on a bus of one's own.
void startBare(bench::Sample& sample)
{
    const common::TemporaryDirectory directory("bench-bus-");
    const std::string address = "unix:path=" + (directory / "bus").string();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    {
        std::optional<bench::Child> bus;
        std::optional<bench::Child> service;
        sample.time([&] {
            bus.emplace(
                std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--address=" + address});
            const auto name = watch(address);
            service.emplace(std::vector<std::string>{BARE_SERVICE, kDaemonName});
            name->waitUntilOwned();
        });
        sample.set(sample.elapsed());
    }
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

void declare()
{
    const auto set = std::make_shared<Set>();
    bench::add("toName", [set](bench::Sample& sample) { runToName(sample, *set); });
    bench::add("agedSet", [aged = agedSet()](bench::Sample& sample) { runToNameAgain(sample, *aged); });
    bench::add("youngSet",
               [young = std::make_shared<Set>()](bench::Sample& sample) { runToNameAgain(sample, *young); });
    const auto reboots = std::make_shared<Reboots>();
    bench::add("reboot", [=](bench::Sample& sample) { reboots->go(sample); });
    bench::add("busAndService", startBare);
    bench::add("toCommand", [](bench::Sample& sample) {
        sample.time([] { bench::runProgram({VSET_PROGRAM, "run", "--temporary", "--", "true"}); });
    });
    bench::add("namespaces", [](bench::Sample& sample) {
        sample.time([] {
            bench::runProgram(
                {"unshare", "--mount", "--pid", "--ipc", "--uts", "--fork", "--mount-proc", "true"});
        });
    });
}

} // namespace

int main(int argc, char** argv)
{
    return bench::main(argc, argv, declare);
}
