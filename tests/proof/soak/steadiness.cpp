#include "tests/proof/soak/steadiness.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <numeric>
#include <system_error>
#include <unistd.h>

#include "tests/proof/left-over.h"

namespace proof
{

namespace
{

namespace fs = std::filesystem;

bool isNumber(const std::string& text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char each) { return std::isdigit(each); });
}

std::string firstLine(const fs::path& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

ServiceState stateOf(const fs::path& process)
{
    ServiceState state;
    std::error_code gone;
    for (fs::directory_iterator entry(process / "fd", gone), end; !gone && entry != end;
         entry.increment(gone)) {
        ++state.descriptors;
    }
    std::ifstream file(process / "statm");
    std::size_t all = 0;
    std::size_t resident = 0;
    file >> all >> resident;
    state.memory = resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return state;
}

// Of one name: all of them together.
void add(std::map<std::string, ServiceState>& services, const std::string& name, const fs::path& process)
{
    const ServiceState state = stateOf(process);
    ++services[name].processes;
    services[name].descriptors += state.descriptors;
    services[name].memory += state.memory;
}

std::string parentOf(const std::string& process)
{
    std::string line = firstLine("/proc/" + process + "/stat");
    line.erase(0, line.rfind(')') + 1);
    const std::size_t begin = line.find_first_not_of(' ', line.find_first_not_of(' ') + 1);
    return line.substr(begin, line.find(' ', begin) - begin);
}

double middleOf(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace

std::map<std::string, ServiceState> servicesOf(const tarnwick::Television& tv)
{
    const std::string init = initOf(tv);
    std::error_code ignored;
    const fs::path room = fs::read_symlink("/proc/" + init + "/ns/pid", ignored);
    std::map<std::string, ServiceState> services;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string number = entry.path().filename();
        if (isNumber(number) && fs::read_symlink(entry.path() / "ns/pid", ignored) == room) {
            const std::string name = firstLine(entry.path() / "comm");
            if (!name.empty()) { // not just gone
                add(services, number == init ? "PID 1" : name, entry.path());
            }
        }
    }
    add(services, "launcher", "/proc/" + parentOf(init));
    return services;
}

std::set<std::string> filesOf(const tarnwick::Television& tv)
{
    std::set<std::string> files;
    std::error_code gone;
    for (fs::recursive_directory_iterator entry(tv.set() / "root", gone), end; !gone && entry != end;
         entry.increment(gone)) {
        const std::string path = entry->path().lexically_relative(tv.set() / "root");
        if (path.rfind("run/", 0) != 0 && path.rfind("var/log/", 0) != 0) {
            files.insert(path);
        }
    }
    return files;
}

std::size_t loopDevicesOf(const tarnwick::Television& tv)
{
    std::size_t count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/block")) {
        count += firstLine(entry.path() / "loop/backing_file").rfind(tv.set().string() + "/", 0) == 0 ? 1 : 0;
    }
    return count;
}

// ---- Course ----

std::vector<double> Course::settled() const
{
    const std::size_t first = values_.size() > kCyclesToFill ? kCyclesToFill : values_.size() / 5;
    return {values_.begin() + static_cast<std::ptrdiff_t>(first), values_.end()};
}

double Course::first() const
{
    std::vector<double> values = settled();
    values.resize(std::max<std::size_t>(values.size() / 10, std::min<std::size_t>(values.size(), 1)));
    return middleOf(values);
}

double Course::last() const
{
    const std::vector<double> values = settled();
    const std::size_t count =
        std::max<std::size_t>(values.size() / 10, std::min<std::size_t>(values.size(), 1));
    return middleOf({values.end() - static_cast<std::ptrdiff_t>(count), values.end()});
}

double Course::highest() const
{
    return values_.empty() ? 0 : *std::max_element(values_.begin(), values_.end());
}

double Course::growth() const
{
    const std::vector<double> values = settled();
    const auto count = static_cast<double>(values.size());
    if (values.size() < 2) {
        return 0;
    }
    const double meanAt = (count - 1) / 2;
    const double mean = std::accumulate(values.begin(), values.end(), 0.0) / count;
    double together = 0;
    double alone = 0;
    for (std::size_t at = 0; at < values.size(); ++at) {
        const double distance = static_cast<double>(at) - meanAt;
        together += distance * (values[at] - mean);
        alone += distance * distance;
    }
    return together / alone * count;
}

} // namespace proof
