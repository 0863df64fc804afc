// The daemon while it waits for the viewer's standby, beside the least that has its name and its heartbeat:
// how often a minute they wake up, and what memory they keep for themselves. All are looked at over the same
// stretches of time. Two rows are made of this: on the PC's clock, as on a television, and with ON_CLOCK the
// daemon on the clock of its set, which stands in front of each of its waits.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "bench/bus-name.h"
#include "bench/child.h"
#include "bench/measure.h"
#include "bench/set-room.h"
#include "common/daemon/places.h"

namespace
{

namespace fs = std::filesystem;
using Clock = bench::Sample::Clock;
using Seconds = std::chrono::duration<double>;

constexpr const char* kBus = "unix:path=/run/dbus/system_bus_socket";

#ifdef ON_CLOCK
constexpr bool kIsOnClock = true;
#else
constexpr bool kIsOnClock = false;
#endif

// The number behind `key` in a file of /proc with such lines.
double valueOf(const fs::path& path, const std::string& key)
{
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string name;
        double value = 0;
        if (words >> name >> value && name == key + ":") {
            return value;
        }
    }
    throw std::runtime_error(path.string() + " has no " + key);
}

class Idler
{
public:
    Idler(const std::vector<std::string>& words, const std::string& name) : child_(words)
    {
        bench::BusName(kBus, name).waitUntilOwned();
    }

    void begin()
    {
        since_ = Clock::now();
        wakeUps_ = wakeUps();
        processor_ = child_.processorSeconds();
    }

    // Since the last look, which was at least `window` ago when this goes on.
    void look(bench::Sample& sample, Seconds window)
    {
        std::this_thread::sleep_until(since_ + window);
        const Seconds elapsed = Clock::now() - since_;
        const ByThread before = wakeUps_;
        const double processor = processor_;
        begin();
        sample.set(elapsed.count(), processor_ - processor);
        sample.note("wakeUps", sumOfRises(before, wakeUps_) * 60 / elapsed.count());
        const fs::path memory = proc() / "smaps_rollup";
        sample.note("kilobytes", valueOf(memory, "Private_Clean") + valueOf(memory, "Private_Dirty"));
    }

private:
    using ByThread = std::map<std::string, double>;

    fs::path proc() const { return "/proc/" + std::to_string(child_.id()); }

    // How often each of its threads stopped waiting.
    ByThread wakeUps() const
    {
        ByThread counts;
        for (const auto& thread : fs::directory_iterator(proc() / "task")) {
            counts[thread.path().filename()] = valueOf(thread.path() / "status", "voluntary_ctxt_switches");
        }
        return counts;
    }

    // Threads come and go meanwhile: the library's pool lets them end.
    static double sumOfRises(const ByThread& before, const ByThread& after)
    {
        double sum = 0;
        for (const auto& [thread, count] : after) {
            const auto known = before.find(thread);
            sum += count - (known == before.end() ? 0 : known->second);
        }
        return sum;
    }

    bench::Child child_;
    Clock::time_point since_;
    ByThread wakeUps_;
    double processor_ = 0;
};

// A set in which the tuner's package waits to be written at standby.
void putTuner()
{
    const fs::path examples = EXAMPLES;
    const auto put = [](const fs::path& from, const fs::path& directory) {
        fs::copy_file(from, directory / from.filename(), fs::copy_options::overwrite_existing);
    };
    put(examples / "tuner.so", common::places::kProductControls);
    put(examples / "images/1.1/empTuner.img", common::places::kPackages);
    put(examples / "images/1.0/hardware/tuner", common::places::kHardware);
}

void declare()
{
    if (kIsOnClock && getenv("LD_PRELOAD") == nullptr) {
        throw std::runtime_error("this set has no clock of its own");
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", kBus, 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", kBus, 1);
    putTuner();
    std::vector<std::shared_ptr<Idler>> idlers;
    const auto declareIdler = [&](const std::string& title, const std::vector<std::string>& words,
                                  const std::string& name) {
        const auto idler = std::make_shared<Idler>(words, name);
        const Seconds window(bench::isTrial() ? 0.3 : 10); // two heartbeats
        bench::add(title, [=](bench::Sample& sample) { idler->look(sample, window); });
        idlers.push_back(idler);
    };
    declareIdler("daemon", {TARNWICK_PROGRAM}, common::places::kDaemonName);
    unsetenv("LD_PRELOAD"); // the set's clock
    declareIdler("bareService", {BARE_SERVICE, "org.pellor.tv.bare"}, "org.pellor.tv.bare");
    const std::string settings = "/usr/libexec/dconf-service";
    if (!kIsOnClock && bench::hasProgram(settings)) {
        declareIdler("settingsService", {settings}, "ca.desrt.dconf");
    }
    std::this_thread::sleep_for(Seconds(bench::isTrial() ? 0.2 : 4)); // until they have begun to wait
    for (const auto& idler : idlers) {
        idler->begin();
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv, kIsOnClock ? bench::SetClock::kAtPace : bench::SetClock::kNone);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
