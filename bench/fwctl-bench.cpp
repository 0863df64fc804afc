// The technician's command on a set with a hundred modules, beside a process for each that only loads it, and
// beside the start of a program that does nothing.

#include <dlfcn.h>
#include <memory>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/set-room.h"

namespace
{

void loadInProcesses(const bench::Modules& modules)
{
    for (const std::string& name : modules.names()) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(dlopen(modules.library(name).c_str(), RTLD_NOW) != nullptr ? 0 : 1);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
            throw std::runtime_error(name + " cannot be loaded in a process of its own");
        }
    }
}

void declare()
{
    const auto modules = std::make_shared<bench::Modules>("module", bench::isTrial() ? 5 : 100);
    modules->install();
    modules->giveImages(4096);
    const auto declareOne = [](const std::string& name, const std::vector<std::string>& words) {
        bench::add(name, [words](bench::Sample& sample) { sample.time([&] { bench::runProgram(words); }); });
    };
    declareOne("list", {FWCTL_PROGRAM, "list"});
    declareOne("doctor", {FWCTL_PROGRAM, "doctor"});
    declareOne("help", {FWCTL_PROGRAM, "--help"});
    declareOne("true", {"true"});
    bench::add("bareProcesses",
               [modules](bench::Sample& sample) { sample.time([&] { loadInProcesses(*modules); }); });
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
