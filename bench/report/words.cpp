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

// As it was set out: 35, not 35.0.
std::string plain(double value)
{
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%g", value);
    return text.data();
}

std::string written(double value, const std::string& unit, std::string (*write)(double))
{
    if (unit == "ms" && value < 1) {
        return write(value * 1e3) + " us";
    }
    if (unit == "ms" && value >= 1000) {
        return write(value / 1e3) + " s";
    }
    return write(value) + " " + unit;
}

std::string ratioOf(const std::optional<double>& ratio)
{
    return ratio ? digits(*ratio) : "";
}

std::string baseOf(const std::optional<double>& value, const Figure& figure, const char* unit)
{
    return value ? withUnit(*value, unit) + ", " + figure.title : "";
}

// "at most 1.5 us: met", "at most 0.55 of the peer: missed".
std::string goalOf(const Result& result, const Goal& goal)
{
    const std::optional<bool> isReached = result.isReached(goal);
    if (!isReached) {
        return "";
    }
    const std::string most =
        goal.of == Of::kItself
            ? written(goal.most, result.compared->unit, plain)
            : plain(goal.most) + (goal.of == Of::kLimit ? " of the limit" : " of the peer");
    return "at most " + most + (*isReached ? ": met" : ": missed");
}

std::string goalsOf(const Result& result)
{
    std::string text;
    for (const Goal& goal : result.compared->goals) {
        const std::string one = goalOf(result, goal);
        text += (text.empty() || one.empty() ? "" : "; ") + one;
    }
    return text;
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
    return written(value, unit, digits);
}

std::vector<std::string> headings()
{
    return {"What", "Ours", "Limit", "Of the limit", "Processor", "Peer", "Of the peer", "Goals"};
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
            goalsOf(result)};
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
