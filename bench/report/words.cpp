#include "bench/report/words.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <thread>

#include "common/version.h"

namespace bench
{

namespace
{

// What stands behind the separator in the line that begins so.
std::string valueIn(const char* file, const std::string& begin, char separator)
{
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find(separator);
        if (line.rfind(begin, 0) == 0 && at != std::string::npos) {
            const size_t from = line.find_first_not_of(" \"", at + 1);
            const size_t to = line.find_last_not_of(" \"");
            return from == std::string::npos ? "" : line.substr(from, to - from + 1);
        }
    }
    return "unknown";
}

std::string ratioOf(const std::optional<double>& ratio)
{
    return ratio ? digits(*ratio) : "";
}

std::string baseOf(const std::optional<double>& value, const Figure& figure, const char* unit)
{
    return value ? withUnit(*value, unit) + ", " + figure.title : "";
}

std::string goalOf(const Result& result)
{
    const Goal& goal = result.compared->goal;
    const std::optional<bool> isReached = result.isReached();
    if (!isReached) {
        return "";
    }
    const std::string base = goal.of == Of::kItself  ? result.compared->unit
                             : goal.of == Of::kLimit ? "of the limit"
                                                     : "of the peer";
    std::array<char, 32> most{};
    snprintf(most.data(), most.size(), "%g ", goal.most);
    return most.data() + base + (*isReached ? ": reached" : ": missed");
}

} // namespace

std::string digits(double value)
{
    const int before = value == 0 ? 1 : static_cast<int>(std::floor(std::log10(std::abs(value)))) + 1;
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%.*f", before >= 3 ? 0 : value == 0 ? 0 : 3 - before, value);
    return text.data();
}

std::string withUnit(double value, const std::string& unit)
{
    if (unit == "ms" && value < 1) {
        return digits(value * 1e3) + " us";
    }
    if (unit == "ms" && value >= 1000) {
        return digits(value / 1e3) + " s";
    }
    return digits(value) + " " + unit;
}

std::vector<std::string> headings()
{
    return {"What", "Ours", "Limit", "Of the limit", "Processor", "Peer", "Of the peer", "Goal"};
}

std::vector<std::string> cellsOf(const Result& result)
{
    const Comparison& compared = *result.compared;
    return {compared.title,
            withUnit(result.ours, compared.unit),
            baseOf(result.limit, compared.limit, compared.unit),
            ratioOf(result.ofLimit()),
            ratioOf(result.processorOfLimit),
            baseOf(result.peer, compared.peer, compared.unit),
            ratioOf(result.ofPeer()),
            goalOf(result)};
}

std::vector<std::string> machine()
{
    struct sysinfo memory = {};
    sysinfo(&memory);
    utsname system = {};
    uname(&system);
    const time_t now = time(nullptr);
    std::array<char, 32> day{};
    tm parts = {};
    strftime(day.data(), day.size(), "%Y-%m-%d", gmtime_r(&now, &parts));
    const double gibibytes = static_cast<double>(memory.totalram) * memory.mem_unit / (1 << 30);
    return {std::to_string(std::thread::hardware_concurrency()) + " processors (" +
                valueIn("/proc/cpuinfo", "model name", ':') + "), " + digits(gibibytes) + " GiB of memory",
            valueIn("/etc/os-release", "PRETTY_NAME", '=') + ", Linux " + system.release,
            std::string(BUILD_TYPE) + " build of " + common::version() + ", " + day.data()};
}

} // namespace bench
