// A record of the daemon's in the set's log, beside the bare write of a line of the same length, and beside
// the plain way: the file is opened, written and closed for each.

#include <cstdio>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "bench/measure.h"
#include "bench/set-room.h"
#include "common/daemon/places.h"
#include "common/files/unique-fd.h"
#include "src/fw-update-log.h"

namespace
{

constexpr int kRecords = 5000; // per sample: one takes microseconds
using common::places::kLogFile;
constexpr const char* kPlainFile = "/var/log/bench.log";

common::UniqueFd openForAppending(const char* path)
{
    common::UniqueFd file(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!file) {
        throw std::runtime_error(std::string(path) + " cannot be opened");
    }
    return file;
}

void writeLine(int file, const std::string& line)
{
    if (write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("a line cannot be written");
    }
}

void writeRecord()
{
    FWLOG_NORLOG(FWLOG_ERROR, "%s update time %d sec", "bench", 8);
}

off_t lengthOfLog()
{
    return lseek(openForAppending(kLogFile).get(), 0, SEEK_END);
}

void declare()
{
    const int count = bench::isTrial() ? 5 : kRecords;
    const off_t before = lengthOfLog();
    writeRecord();
    const auto length = static_cast<std::size_t>(lengthOfLog() - before);
    if (length == 0) {
        throw std::runtime_error("the log has no record of this program");
    }
    const std::string line = std::string(length - 1, 'x') + "\n";
    bench::add("record", [=](bench::Sample& sample) { sample.time(writeRecord, count); });
    bench::add("bareWrite", [=](bench::Sample& sample) {
        const common::UniqueFd file = openForAppending(kPlainFile);
        sample.time([&] { writeLine(file.get(), line); }, count);
    });
    bench::add("openWriteClose", [=](bench::Sample& sample) {
        sample.time([&] { writeLine(openForAppending(kPlainFile).get(), line); }, count);
    });
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
