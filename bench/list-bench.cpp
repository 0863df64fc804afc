// The pass that finds out what is pending, over a hundred modules with images in the system image, beside the
// raw reads of the same files and the command that sums files.

#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <unistd.h>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/set-room.h"
#include "common/files/unique-fd.h"
#include "src/src/fw-update-symbol-manager.h"

namespace
{

void readRaw(const std::string& path)
{
    const common::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char chunk[32768];
    while (read(file.get(), chunk, sizeof chunk) > 0) {
    }
}

void declareSize(const std::string& title, int count, int bytes)
{
    const bench::Modules modules(title, count);
    modules.install();
    modules.giveImages(bytes);
    const auto manager = std::make_shared<FWUpdateSymbolManager>();
    manager->onCreate(false);
    bench::add("daemon/" + title, [manager, count](bench::Sample& sample) {
        sample.time([&] {
            bool isRunning = true;
            if (manager->writeFirmwareUpdateList(isRunning) != count) {
                throw std::runtime_error("the list does not have every module");
            }
        });
    });
    bench::add("rawReads/" + title, [names = modules.names()](bench::Sample& sample) {
        sample.time([&] {
            for (const std::string& name : names) {
                readRaw(bench::informationOf(name));
                readRaw(bench::imageOf(name));
            }
        });
    });
    std::vector<std::string> command = {"cksum"};
    for (const std::string& name : modules.names()) {
        command.push_back(bench::imageOf(name));
    }
    bench::add("cksum/" + title,
               [command](bench::Sample& sample) { sample.time([&] { bench::runProgram(command); }); });
}

void declare()
{
    const int count = bench::isTrial() ? 5 : 100;
    declareSize("small", count, 4096);
    declareSize("large", count, 1 << 20);
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
